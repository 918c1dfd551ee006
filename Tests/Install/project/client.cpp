// Runs a command of the module beside it in this process, and speaks to a port where nobody listens.
#include <ClientSession/OstrelDaemonSession.h>
#include <Containers/PropertyList.h>
#include <Platform/HostRoot.h>
#include <PluginFramework/BundleManager.h>

#include <cstdio>
#include <filesystem>

int main(int, char** argv) {
  const std::filesystem::path here = std::filesystem::canonical(argv[0]).parent_path();
  const std::filesystem::path root = here / "root";
  std::filesystem::create_directories(root / "usr/share/ostreld/bundles");
  std::filesystem::create_directories(root / "private/var/ostreld");
  const auto bundle = root / "usr/share/ostreld/bundles/ostrel_outside.bundle";
  std::filesystem::copy_file(here / "ostrel_outside.bundle", bundle, std::filesystem::copy_options::overwrite_existing);
  std::filesystem::permissions(bundle, std::filesystem::perms(0755));

  ostrel::setHostRoot(root.string());
  const ostrel::PlistValue request = ostrel::PlistValue::dictionaryOf({{"command", "double"}, {"number", 21}});
  const auto answer = ostrel::BundleManager::defaultManager().doCommand(request, "ostrel_outside", nullptr);
  for (const auto& failure : ostrel::BundleManager::defaultManager().loadFailures()) {
    std::printf("%s: %s\n", failure.path.c_str(), failure.reason.c_str());
  }
  std::printf("%s", ostrel::writeXmlPropertyList(answer).value_or("no answer").c_str());

  const auto session = ostrel::OstrelDaemonSession::init();
  session->setHost("127.0.0.1");
  session->setPort("1");
  const auto reply = session->sendSyncRequest(request);
  std::printf("%s\n", session->failureReason().value_or("no failure").c_str());
  const bool right = answer.get("result").int64Value() == 42 && session->status() == 3 &&
                     reply.get("error").stringValue() == std::string("EMPTY_RESPONSE_ERR");
  return right ? 0 : 1;
}
