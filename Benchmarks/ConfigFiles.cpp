// One directive of a web server's file changed and saved: beside a plain replacement of the file, and beside libaugeas.
// Each comparison is wall time, by turns, on the disk of the temporary folder.
#include <augeas.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "ConfigFiles/TextBlocks.h"
#include "ConfigFiles/TextDirectives.h"
#include "ConfigFiles/TextFileChange.h"
#include "ConfigFiles/TextFileCopies.h"

using namespace ostrel;

namespace {

constexpr int rounds = 201;

class Folder {
 public:
  Folder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "ostrel-config-files-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot make a temporary folder");
    path = pattern;
    std::filesystem::create_directories(path + "/etc/apache2");
  }
  ~Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  std::string path;
};

void check(bool done, const char* what) {
  if (!done) throw std::runtime_error(what);
}

// Virtual hosts with their directives and comments; the directive that is changed stands in the middle.
std::string sampleText(int lines) {
  std::string text;
  for (int line = 0; line < lines;) {
    const std::string number = std::to_string(line);
    if (line <= lines / 2 && lines / 2 < line + 8) text += "Timeout 300\n";
    text += "# Host number " + number + " of this server\n<VirtualHost *:80>\n    ServerName host" + number +
            ".example.com\n    DocumentRoot /srv/www/host" + number + "\n    ErrorLog /var/log/apache2/host" + number +
            "-error.log\n    #LogLevel info\n</VirtualHost>\n\n";
    line += 8;
  }
  return text;
}

void writeText(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << text;
  check(static_cast<bool>(file.flush()), "cannot write the sample");
}

// What a careful script does: read, replace, write beside, sync, rename, sync the folder.
void replacePlainly(const std::string& path, const std::string& value) {
  std::ifstream file(path, std::ios::binary);
  std::string text((std::istreambuf_iterator<char>(file)), {});
  const std::size_t at = text.find("\nTimeout ") + 9;
  text.replace(at, text.find('\n', at) - at, value);
  const std::string temporary = path + ".new";
  const int made = open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  check(made >= 0 && write(made, text.data(), text.size()) == static_cast<ssize_t>(text.size()), "plain write");
  check(fsync(made) == 0 && close(made) == 0 && std::rename(temporary.c_str(), path.c_str()) == 0, "plain rename");
  const int folder = open(path.substr(0, path.rfind('/')).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  check(fsync(folder) == 0 && close(folder) == 0, "plain folder sync");
}

std::int32_t readAndUpdate(std::FILE* stream, const std::string& value) {
  char directive[512] = "Timeout";
  char old[512] = "";
  std::int64_t line = 0;
  std::int32_t commented = 0;
  const std::int32_t code = ReadDirectiveInFile(stream, directive, &line, old, &commented, 0, 0);
  return code != 0 ? code : UpdateDirectiveInFile(stream, "Timeout", nullptr, value.c_str(), line, nullptr);
}

void editInPlace(const std::string& path, const std::string& value) {
  std::FILE* const stream = std::fopen(path.c_str(), "r+");
  check(stream != nullptr && readAndUpdate(stream, value) == 0 && std::fclose(stream) == 0, "edit in place");
  check(CompactFile(path.c_str()) == 0, "compact");
}

void editCopy(const std::string& path, const std::string& value) {
  std::int32_t code = 0;
  const auto change = changeOfTextFile(
      path, [&](std::FILE* stream) { return readAndUpdate(stream, value); }, code);
  check(change && change->save(), "edit a copy");
}

class Augeas {
 public:
  explicit Augeas(const std::string& root) : augeas_(aug_init(root.c_str(), nullptr, AUG_NO_MODL_AUTOLOAD)) {
    check(augeas_ != nullptr && aug_set(augeas_, "/augeas/load/Httpd/lens", "Httpd.lns") == 0 &&
              aug_set(augeas_, "/augeas/load/Httpd/incl", "/etc/apache2/apache2.conf") == 0,
          "augeas");
  }
  ~Augeas() { aug_close(augeas_); }
  Augeas(const Augeas&) = delete;
  Augeas& operator=(const Augeas&) = delete;

  void edit(const std::string& value) {
    check(aug_load(augeas_) == 0, "augeas load");
    check(aug_set(augeas_, "/files/etc/apache2/apache2.conf/directive[. = 'Timeout']/arg", value.c_str()) == 0,
          "augeas set");
    check(aug_save(augeas_) == 0, "augeas save");
  }

 private:
  augeas* augeas_;
};

double timed(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> values) {
  std::ranges::nth_element(values, values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2));
  return values[values.size() / 2];
}

void compare(const char* name, int turns, const std::function<void(int)>& ours, const std::function<void(int)>& peer,
             double goal) {
  std::vector<double> ourTimes;
  std::vector<double> peerTimes;
  std::vector<double> ratios;
  for (int turn = 0; turn < turns; ++turn) {
    ourTimes.push_back(timed([&] { ours(turn); }));
    peerTimes.push_back(timed([&] { peer(turn); }));
    ratios.push_back(ourTimes.back() / peerTimes.back());
  }
  const double ratio = median(ratios);
  std::printf("| %s | %.0f us | %.0f us | %.2f | %.2f | %s |\n", name, median(ourTimes), median(peerTimes), ratio, goal,
              ratio <= goal ? "" : "missed");
}

void compareGrowth() {
  const auto commented = [](int lines) {
    const auto text = EditableText::open(sampleText(lines));
    check(text.has_value(), "memory");
    return timed([&] { check(CommentOutBlockInFile(text->stream(), 1, 0, 0, nullptr, nullptr) == 0, "comment"); });
  };
  std::vector<double> ratios;
  for (int turn = 0; turn < 11; ++turn) ratios.push_back(commented(100'000) / commented(1'000) / 100);
  std::printf("| comment out every line, time a line: 100,000 lines beside 1,000 | | | %.2f | 3.00 | |\n",
              median(ratios));
}

}  // namespace

int main() {
  const Folder folder;
  const std::string path = folder.path + "/etc/apache2/apache2.conf";
  writeText(path, sampleText(2'000));
  std::printf("| a file of 2,000 lines: ours, peer | ours | peer | ratio | goal | |\n|---|---:|---:|---:|---:|---|\n");
  const auto value = [](int turn) { return std::to_string(100 + turn % 900); };
  const auto plain = [&](int turn) { replacePlainly(path, value(2 * turn + 1)); };
  compare(
      "in place and CompactFile, plain replacement", rounds, [&](int t) { editInPlace(path, value(2 * t)); }, plain,
      1.5);
  compare(
      "on a copy and saved, plain replacement", rounds, [&](int t) { editCopy(path, value(2 * t)); }, plain, 1.5);
  Augeas tree(folder.path);
  compare(
      "in place and CompactFile, libaugeas", 5, [&](int t) { editInPlace(path, value(2 * t)); },
      [&](int t) { tree.edit(value(2 * t + 1)); }, 1.0);
  compareGrowth();
  return 0;
}
