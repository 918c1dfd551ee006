#include "Load/NginxPeer.h"

#include <unistd.h>

#include <filesystem>
#include <stdexcept>

namespace ostrel::load {
namespace {

constexpr const char* program = "/usr/sbin/nginx";

}  // namespace

bool NginxPeer::isInstalled() { return access(program, X_OK) == 0; }

NginxPeer::NginxPeer(const std::string& host, const std::string& pem, const std::string& body) : host_(host) {
  const std::string prefix = folder_.path();
  std::string temporaries;
  for (const char* kind : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"})
    temporaries += std::string("  ") + kind + "_temp_path " + prefix + "/" + kind + ";\n";
  // The workers keep the rights of who starts them, so that the folder need not be another user's.
  const std::string user = getuid() == 0 ? "user root;\n" : "";
  testing::writeFile(folder_ / "nginx.conf",
                     user + "daemon off;\nworker_processes auto;\npid " + prefix + "/nginx.pid;\nerror_log " + prefix +
                         "/error.log;\nevents { worker_connections 1024; }\nhttp {\n" + temporaries +
                         "  access_log off;\n  keepalive_timeout 0;\n" + "  server {\n    listen " + host +
                         ":311 ssl backlog=1024;\n" + "    ssl_certificate " + pem + ";\n    ssl_certificate_key " +
                         pem + ";\n    ssl_protocols TLSv1.2 TLSv1.3;\n    location / {\n" +
                         "      default_type text/xml;\n      return 200 '" + body + "';\n    }\n  }\n}\n");
  master_ = std::make_unique<testing::ChildProcess>(
      std::vector<std::string>{program, "-p", prefix, "-c", prefix + "/nginx.conf", "-e", prefix + "/error.log"},
      folder_ / "output", folder_ / "errors");
  const auto runs = [&] { return std::filesystem::exists(folder_ / "nginx.pid") || master_->hasEnded(); };
  if (!testing::eventually(runs) || master_->hasEnded())
    throw std::runtime_error("nginx does not start: " + testing::readFile(folder_ / "errors") +
                             testing::readFile(folder_ / "error.log"));
}

NginxPeer::~NginxPeer() {
  master_->send(SIGTERM);  // its workers go with it
  master_->wait();
}

}  // namespace ostrel::load
