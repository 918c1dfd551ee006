#include "ostrelctl/HistoryCommand.h"

#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <clocale>
#include <cstdlib>
#include <cstring>

#include "Containers/LeadingInteger.h"
#include "Platform/Clock.h"
#include "ostrelctl/Exchange.h"
#include "ostrelctl/HistoryChart.h"

namespace ostrel {
namespace {

constexpr const char* command = "getHistory";
constexpr double mostSeconds = 1e9;

/// Of the terminal at standard output; COLUMNS, where it is set, wins.
std::size_t terminalWidth() {
  constexpr std::size_t usual = 80;
  constexpr int widest = 1000;
  if (const char* columns = std::getenv("COLUMNS")) {
    const int wanted = leadingInt(columns);
    if (wanted > 0) return static_cast<std::size_t>(std::min(wanted, widest));
  }
  winsize size{};
  const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
  return known ? size.ws_col : usual;
}

bool printsUtf8() {
  std::setlocale(LC_CTYPE, "");
  return std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
}

class HistoryCommand : public Subcommand {
 public:
  void declare(CLI::App& app) override {
    app.add_option("MODULE", module_, "Whose samples")->required();
    app.add_option("--period", period_, "How far back: a number and s, m, h, d or w")->capture_default_str();
    app.add_option("--values", values_, "Which values, by their keys, as \"v1,v3\"; else all");
    app.footer(
        "\nDraws on a terminal, else prints a table.\n\nExamples:\n  ostrelctl history ostrel_sample --period 1d\n"
        "  ostrelctl history ostrel_sample --values v1 --json\n");
  }

  int run(const SharedOptions& shared) override {
    const auto period = periodFromText(period_);
    if (!period) return fail(wrongUsage, "no period: " + period_ + " (a number and s, m, h, d or w)");
    int exitStatus = done;
    PlistValue request = PlistValue::mutableDictionaryOf({{"command", command}, {"period", *period}});
    if (!values_.empty()) request.set("filter", values_);
    const auto answer = ask(shared, module_, request, exitStatus);
    if (!answer) return exitStatus;
    if (shared.form != OutputForm::text || !answer->reply.get("error").isNull())
      return printAnswer(*answer, shared.form, module_, command);
    if (!answer->reply.get("samples").isArray()) return fail(noReply, module_ + " does not answer with a history");
    return print(textOf(seriesFrom(answer->reply, values_), *period));
  }

 private:
  static std::string textOf(const std::vector<HistorySeries>& series, double period) {
    const bool empty = std::ranges::all_of(series, [](const HistorySeries& each) { return each.points.empty(); });
    if (empty) return "no samples\n";
    if (isatty(STDOUT_FILENO) == 0) return historyTable(series);
    const ChartFrame frame = frameFor(series, period, Clock::current().now().secondsSince1970);
    return historyCharts(series, {frame.from, frame.to, terminalWidth(), frame.rows, printsUtf8()});
  }

  std::string module_;
  std::string period_ = "1h";
  std::string values_;
};

}  // namespace

std::optional<double> periodFromText(std::string_view text) {
  double number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc()) return std::nullopt;
  const std::string_view unit = text.substr(static_cast<std::size_t>(end - text.data()));
  constexpr std::pair<std::string_view, double> units[] = {{"", 1},      {"s", 1},      {"m", 60},
                                                           {"h", 3'600}, {"d", 86'400}, {"w", 604'800}};
  const auto* found = std::ranges::find(units, unit, [](const auto& each) { return each.first; });
  if (found == std::end(units)) return std::nullopt;
  const double seconds = number * found->second;
  return seconds > 0 && seconds <= mostSeconds ? std::optional(seconds) : std::nullopt;
}

std::unique_ptr<Subcommand> makeHistoryCommand() { return std::make_unique<HistoryCommand>(); }

}  // namespace ostrel
