#include "Support/SlapdFixture.h"

#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ClientSession/TestCertificate.h"
#include "Containers/Format.h"
#include "Containers/PropertyList.h"
#include "Support/Loopback.h"

namespace ostrel::testing {
namespace {

constexpr const char* program = "/usr/sbin/slapd";

int freePort() { return LoopbackListener().port(); }

std::string privateKey(const TestCertificate& certificate) {
  const std::unique_ptr<BIO, decltype(&BIO_free)> memory(BIO_new(BIO_s_mem()), BIO_free);
  PEM_write_bio_PrivateKey(memory.get(), certificate.key(), nullptr, nullptr, 0, nullptr, nullptr);
  char* bytes = nullptr;
  const long size = BIO_get_mem_data(memory.get(), &bytes);
  return {bytes, static_cast<std::size_t>(size)};
}

std::string userEntry(const std::string& name, int number, const std::string& password) {
  std::string entry = format(
      "dn: uid=%s,ou=people,%s\nobjectClass: inetOrgPerson\nobjectClass: posixAccount\nuid: %s\ncn: Ada Surname "
      "%d\nsn: Surname\nuidNumber: %d\ngidNumber: %d\nhomeDirectory: /home/%s\nloginShell: /bin/bash\nmail: "
      "%s@example.org\n",
      name, Slapd::base, name, number, 1000 + number, 100 + number % 50, name, name);
  entry += "entryUUID: " + Slapd::userIdentifier(number) + "\n";
  if (!password.empty()) entry += "userPassword: " + password + "\n";
  return entry + "\n";
}

std::string groupEntry(int number, int users) {
  std::string entry =
      format("dn: cn=%s,ou=groups,%s\nobjectClass: posixGroup\ncn: %s\ngidNumber: %d\ndescription: Group %d\n",
             Slapd::groupName(number), Slapd::base, Slapd::groupName(number), 5000 + number, number);
  for (int member = 0; member < 4 && member < users; ++member)
    entry += "memberUid: " + Slapd::userName((number * 7 + member) % users) + "\n";
  return entry + "\n";
}

std::string initialTree(const SlapdOptions& options) {
  std::string tree =
      format("dn: %s\nobjectClass: organization\nobjectClass: dcObject\no: Example\ndc: example\n\n", Slapd::base);
  for (const char* unit : {"people", "groups"})
    tree += format("dn: ou=%s,%s\nobjectClass: organizationalUnit\nou: %s\n\n", unit, Slapd::base, unit);
  for (int number = 0; number < options.users; ++number)
    tree += userEntry(Slapd::userName(number), number, number < 100 ? format("secret%05d", number) : "");
  for (int number = 0; number < options.groups; ++number) tree += groupEntry(number, options.users);
  return tree;
}

}  // namespace

bool Slapd::isInstalled() { return access(program, X_OK) == 0; }
std::string Slapd::userName(int number) { return format("user%05d", number); }
std::string Slapd::groupName(int number) { return format("group%03d", number); }
std::string Slapd::userIdentifier(int number) { return format("3F2504E0-4F89-41D3-9A0C-0305%08X", number); }
std::string Slapd::url() const { return "ldap://127.0.0.1:" + std::to_string(port_); }
std::string Slapd::encryptedUrl() const { return "ldaps://127.0.0.1:" + std::to_string(encryptedPort_); }

Slapd::Slapd(const SlapdOptions& options) : port_(freePort()), encryptedPort_(freePort()) {
  configure(options);
  load(initialTree(options));
  if (options.certificate == nullptr) encryptedPort_ = 0;
  start();
}

Slapd::~Slapd() { stop(); }

void Slapd::configure(const SlapdOptions& options) const {
  std::string text;
  for (const char* schema : {"core", "cosine", "inetorgperson", "nis"})
    text += format("include /etc/ldap/schema/%s.schema\n", schema);
  text += "modulepath /usr/lib/ldap\nmoduleload back_mdb\nthreads 4\n";
  if (options.certificate != nullptr) {
    writeFile(folder_ / "certificate.pem", options.certificate->pem());
    writeFile(folder_ / "key.pem", privateKey(*options.certificate));
    text +=
        format("TLSCertificateFile %s\nTLSCertificateKeyFile %s\n", folder_ / "certificate.pem", folder_ / "key.pem");
  }
  text += options.sizeLimit == 0 ? std::string("sizelimit unlimited\n") : format("sizelimit %d\n", options.sizeLimit);
  text +=
      format("database mdb\nmaxsize 268435456\nsuffix %s\nrootdn %s\nrootpw administrator\ndirectory %s\ndbnosync\n",
             base, administrator, folder_.path());
  text += "index objectClass,uidNumber,gidNumber,entryUUID eq\nindex uid,cn,memberUid pres,eq,sub\n";
  const std::string manager = format("by dn.exact=uid=%s,ou=people,%s write", userName(0), base);
  text += format("access to attrs=userPassword %s by self write by anonymous auth by * none\n", manager);
  text += format("access to * %s by * read\n", manager);
  writeFile(folder_ / "slapd.conf", text);
}

void Slapd::load(const std::string& entries) const {
  writeFile(folder_ / "entries.ldif", entries);
  const Outcome loaded =
      runProgram({"/usr/sbin/slapadd", "-q", "-f", folder_ / "slapd.conf", "-l", folder_ / "entries.ldif"});
  if (loaded.status != 0) throw std::runtime_error("slapadd: " + loaded.errors);
}

void Slapd::add(const std::string& entries) {
  stop();
  load(entries);
  start();
}

void Slapd::start() {
  const std::string addresses = encryptedPort_ == 0 ? url() : url() + " " + encryptedUrl();
  // Whatever becomes of the test, the server ends with it.
  process_ =
      std::make_unique<ChildProcess>(std::vector<std::string>{"/usr/bin/setpriv", "--pdeathsig", "KILL", program, "-d",
                                                              "0", "-h", addresses, "-f", folder_ / "slapd.conf"},
                                     folder_ / "output", folder_ / "errors");
  const SocketAddress address = *SocketAddress::ipv4("127.0.0.1", static_cast<std::uint16_t>(port_));
  const auto answers = [&] { return process_->hasEnded() || connectSocket(openStreamSocket(AF_INET).get(), address); };
  if (!eventually(answers) || process_->hasEnded())
    throw std::runtime_error("slapd does not start: " + readFile(folder_ / "errors"));
}

void Slapd::freeze() const {
  process_->send(SIGSTOP);
  const auto isStopped = [&] {
    const std::string status = readFile("/proc/" + std::to_string(process_->pid()) + "/stat");
    return status.find(") T ") != std::string::npos;
  };
  if (!eventually(isStopped)) throw std::runtime_error("slapd does not stop");
}

void Slapd::stop() {
  if (!process_) return;
  process_->send(SIGCONT);
  process_->send(SIGTERM);
  process_->wait();
  process_.reset();
}

PlistValue Slapd::entry(const std::string& root, const std::string& path) const {
  const std::string passwordFile = root + "/etc/ostreld/ldap.password";
  writeFile(passwordFile, "administrator\n");
  chmod(passwordFile.c_str(), 0600);
  return PlistValue::mutableDictionaryOf({{"Kind", "LDAP"},
                                          {"Path", path},
                                          {"Servers", PlistValue::arrayOf({url()})},
                                          {"BindDN", administrator},
                                          {"BindPasswordFile", "/etc/ostreld/ldap.password"}});
}

void writeDirectoryConfiguration(const std::string& root, const PlistValue& configuration) {
  writeFile(root + "/etc/ostreld/directory.plist", *writeXmlPropertyList(configuration));
}

}  // namespace ostrel::testing
