#include "ostrelctl/BatchCommand.h"

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "Containers/Format.h"
#include "Shared/DaemonModule.h"
#include "ostrelctl/BatchFile.h"
#include "ostrelctl/Exchange.h"
#include "ostrelctl/RequestArguments.h"
#include "ostrelctl/TextForm.h"

namespace ostrel {
namespace {

constexpr const char* details =
    "\nFILE has a command a line, MODULE COMMAND [ARGUMENT...] with arguments as ostrelctl --help shows them, quotes "
    "as in\n"
    "a shell and # before remarks; or it is JSON or a property list:\n"
    "  [{\"name\": \"ostrel_sample\", \"request\": {\"command\": \"getState\"}}, ...]\n"
    "\n"
    "The commands run side by side, those for one module one after the other. Replies stand in the order in which "
    "they\n"
    "came. Exit status 1: one of them holds an error.\n"
    "\n"
    "Example:\n"
    "  printf '%s\\n' 'ostrel_sample getState' 'ostrel_sample getInterfaces' | ostrelctl batch -\n";

/// One command's response, wherever the reply holds it.
struct Part {
  std::string module;
  std::string command;
  PlistValue response;
};

std::vector<Part> partsOf(const PlistValue& reply) {
  std::vector<Part> parts;
  const PlistValue elements = reply.get("responsesArray");
  for (const PlistValue& element : elements.elements()) {
    parts.push_back({std::string(element.get("name").stringValue()), std::string(element.get("command").stringValue()),
                     element.get("response")});
  }
  if (elements.isArray()) return parts;
  for (const PlistEntry& module : reply.entries()) {
    for (const PlistEntry& command : module.value.entries()) {
      parts.push_back({std::string(module.keyText()), std::string(command.keyText()), command.value});
    }
  }
  return parts;
}

std::string readable(const std::vector<Part>& parts) {
  std::string text;
  for (const Part& part : parts) {
    if (!text.empty()) text += '\n';
    text += readableText(PlistValue::dictionaryOf({{part.module + " " + part.command, part.response}}));
  }
  return text;
}

class BatchCommand : public Subcommand {
 public:
  void declare(CLI::App& app) override {
    app.add_option("FILE", file_, "File with the commands; \"-\": standard input")->required();
    app.add_flag("--as-dictionary", asDictionary_,
                 "Have the replies by module and command instead of in their order; the later of two alike is kept");
    app.footer(details);
  }

  int run(const SharedOptions& shared) override {
    std::string fault;
    const auto text = contentOf(file_, fault);
    if (!text) return fail(wrongUsage, fault);
    const auto requests = requestsFromText(*text, fault);
    if (!requests) return fail(wrongUsage, format("%s: %s", file_, fault));
    int exitStatus = done;
    const auto answer = ask(shared, daemonModule::name,
                            PlistValue::dictionaryOf({{"command", daemonModule::batch},
                                                      {"requestsArray", *requests},
                                                      {"sendResponsesAsDictionary", asDictionary_}}),
                            exitStatus);
    return answer ? show(*answer, shared.form) : exitStatus;
  }

 private:
  static int show(const Answer& answer, OutputForm form) {
    // A module may be called "error", and its replies are a dictionary.
    if (answer.reply.isNull() || answer.reply.get("error").isString()) {
      return printAnswer(answer, form, daemonModule::name, daemonModule::batch);
    }
    const auto parts = partsOf(answer.reply);
    int status = print(form == OutputForm::text ? readable(parts) : textInForm(answer.reply, answer.bytes, form));
    for (const Part& part : parts) {
      const auto error = errorOf(part.response, part.module, part.command);
      if (error && status != noReply) status = fail(replyHoldsError, *error);
    }
    return status;
  }

  std::string file_;
  bool asDictionary_ = false;
};

}  // namespace

std::unique_ptr<Subcommand> makeBatchCommand() { return std::make_unique<BatchCommand>(); }

}  // namespace ostrel
