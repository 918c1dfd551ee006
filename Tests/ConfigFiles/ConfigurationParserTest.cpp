// Typed configuration files: the three files, conversions, defaults, errors.
#include "ConfigFiles/ConfigurationParser.h"

#include <unistd.h>

#include <filesystem>
#include <limits>

#include <gmock/gmock.h>

#include "Containers/PropertyList.h"
#include "Support/Fakes.h"
#include "Support/TemporaryFolder.h"

namespace ostrel {
namespace {

using testing::readFile;
using testing::writeFile;
using Parser = ConfigurationParser;
using ::testing::ElementsAre;

PlistValue list(const char* xml) {
  return readPropertyList(std::string("<plist version=\"1.0\">") + xml + "</plist>", PlistForm::mutableContainers);
}

std::string utf16(std::string_view ascii, bool bigEndian = false) {
  std::string text(bigEndian ? "\xFE\xFF" : "\xFF\xFE");
  for (const char c : ascii) text += bigEndian ? std::string({'\0', c}) : std::string({c, '\0'});
  return text;
}

class Configuration : public ::testing::Test {
 protected:
  std::string path(std::string_view name) const { return folder_ / name; }
  /// The log lines so far, without the program's name, each behind its priority.
  std::vector<std::string> logged() {
    std::vector<std::string> lines;
    for (const auto& record : log_.records()) {
      const std::string prefix = "config_files_tests: ";
      EXPECT_TRUE(record.message.starts_with(prefix)) << record.message;
      lines.push_back(std::to_string(record.priority) + " " + record.message.substr(prefix.size()));
    }
    return lines;
  }
  const testing::TemporaryFolder folder_;
  testing::RecordingLog log_;
  const ScopedOverride<SystemLog> logging_{log_};
};

std::vector<std::string> texts(const PlistValue& array) {
  std::vector<std::string> found;
  for (const PlistValue& element : array.elements()) found.emplace_back(element.description());
  return found;
}

TEST_F(Configuration, AMissingFileIsMadeFromTheDefaults) {
  writeFile(path("defaults"), *writeXmlPropertyList(list("<dict><key>port</key><integer>311</integer></dict>")));
  Parser parser(path("settings"), {}, path("defaults"), true);
  EXPECT_EQ(parser.readStatus(), kConfigStatusFileNotFound);
  EXPECT_EQ(parser.writeStatus(), kConfigStatusOK);
  EXPECT_EQ(parser.globalError(), PlistValue("readFile: File " + path("settings") + " not found"));
  EXPECT_EQ(parser.errors().count(), 0U);
  EXPECT_THAT(logged(), ElementsAre("3 readFile File " + path("settings") + " not found"));
  const auto second = Parser::configurationParserWithFile(path("settings"));
  EXPECT_EQ(second->readStatus(), kConfigStatusOK);
  EXPECT_EQ(second->dictionary(), list("<dict><key>port</key><integer>311</integer></dict>"));
  EXPECT_EQ(second->globalError(), PlistValue(""));

  Parser complete(path("settings"), {}, path("defaults"), true);
  EXPECT_EQ(log_.records().size(), 1U);
  EXPECT_FALSE(complete.change()->changed());
}

TEST_F(Configuration, TellsWhyAFileCouldNotBeRead) {
  const std::string good = *writeXmlPropertyList(list("<dict><key>a</key><string>b</string></dict>"));
  const struct {
    const char* what;
    std::string bytes;
    std::int32_t status;
  } cases[] = {
      {"xml", good, kConfigStatusOK},
      {"binary", *writeBinaryPropertyList(list("<dict/>")), kConfigStatusOK},
      {"empty", "", kConfigStatusInvalidPlist},
      {"array", *writeXmlPropertyList(list("<array/>")), kConfigStatusInvalidPlist},
      {"half", good.substr(0, good.size() / 2), kConfigStatusInvalidPlist},
  };
  for (const auto& [what, bytes, status] : cases) {
    writeFile(path(what), bytes);
    Parser parser(path(what));
    EXPECT_EQ(parser.readStatus(), status) << what;
    if (status == kConfigStatusOK) continue;
    EXPECT_EQ(parser.globalError(), PlistValue("readFile: File " + path(what) + " is not a valid plist"));
    EXPECT_EQ(logged().back(), "3 readFile File " + path(what) + " is not a valid plist");
  }
  EXPECT_EQ(Parser(folder_.path()).readStatus(), kConfigStatusInvalidPlist) << "a folder";
  EXPECT_EQ(Parser("/dev/zero").readStatus(), kConfigStatusInvalidPlist) << "a device without end";
  EXPECT_EQ(Parser("").readStatus(), kConfigStatusFileNotFound);

  Parser kept(path("xml"));
  kept.setFile(path("half"));
  EXPECT_FALSE(kept.readFile());
  EXPECT_EQ(kept.dictionary().get("a"), PlistValue("b")) << "a failed read keeps the settings";
}

TEST_F(Configuration, TellsWhatIsInaccessible) {
  writeFile(path("secret"), "");
  std::filesystem::permissions(path("secret"), std::filesystem::perms::none);
  std::filesystem::permissions(folder_.path(), std::filesystem::perms(0755));
  // Root may read and write everything: be nobody meanwhile.
  const uid_t user = geteuid();
  ASSERT_EQ(seteuid(user == 0 ? 65534 : user), 0);
  Parser parser(path("secret"));
  EXPECT_EQ(parser.readStatus(), kConfigStatusNoAccess);
  EXPECT_EQ(parser.findAndLogErrorForFile(path("secret"), "m", false, {}, 4), kConfigStatusNoAccess);
  ASSERT_EQ(seteuid(user), 0);
  EXPECT_THAT(logged(), ElementsAre("3 readFile File " + path("secret") + " is not readable",
                                    "4 m File " + path("secret") + " is not writeable"));
}

TEST_F(Configuration, CollectsErrors) {
  Parser parser{PlistValue()};
  EXPECT_EQ(parser.readStatus(), kConfigStatusNoPath);
  EXPECT_EQ(parser.globalError(), PlistValue("readFile: File path not specified"));
  EXPECT_FALSE(parser.writeFile());
  EXPECT_EQ(parser.writeStatus(), kConfigStatusNoPath);
  EXPECT_FALSE(parser.change());
  parser.setFile(path("no/such/folder"));
  EXPECT_FALSE(parser.writeFile());
  EXPECT_EQ(parser.writeStatus(), kConfigStatusFileNotFound);
  std::filesystem::create_directories(path("folder"));
  parser.setFile(path("folder"));
  EXPECT_FALSE(parser.writeFile());
  EXPECT_EQ(parser.writeStatus(), kConfigStatusUnknownError);
  EXPECT_EQ(parser.globalError(), PlistValue("multiple_errors"));
  EXPECT_THAT(texts(parser.errors()),
              ElementsAre("readFile: File path not specified", "writeFile: File path not specified",
                          "writeFile: File " + path("no/such/folder") + " not found",
                          "writeFile: Couldn't read file " + path("folder") + " - unknown error"));
  EXPECT_THAT(logged(), ElementsAre("3 readFile File path not specified", "3 writeFile File path not specified",
                                    "3 writeFile File " + path("no/such/folder") + " not found",
                                    "3 writeFile Couldn't read file " + path("folder") + " - unknown error"));
  parser.setErrors(PlistValue::arrayOf({"given"}));
  parser.addError("more");
  EXPECT_THAT(texts(parser.errors()), ElementsAre("given", "more")) << "nothing is lost in an immutable array";
  parser.setFile(path("written"));
  EXPECT_TRUE(parser.writeFile());
  EXPECT_EQ(parser.writeStatus(), kConfigStatusUnknownError) << "success leaves the write status alone";

  writeFile(path("defaults"), *writeXmlPropertyList(list("<dict><key>a</key><true/></dict>")));
  Parser populated(path("none/settings"), {}, path("defaults"), true);
  EXPECT_EQ(populated.writeStatus(), kConfigStatusOK);
  EXPECT_EQ(logged().back(), "4 initWithFile File " + path("none/settings") + " not found");
  EXPECT_EQ(populated.dictionary().count(), 1U);
}

TEST_F(Configuration, ReadsTypesAndDefaultsOrKeepsWhatItHas) {
  const std::string entries = "/* types */ \"port\" = \"Integer\"; // end\n \"on\" = \"Boolean\";";
  writeFile(path("little"), utf16(entries));
  writeFile(path("big"), utf16(entries, true));
  for (const char* name : {"little", "big"}) {
    Parser parser(PlistValue(), path(name));
    EXPECT_EQ(parser.typesDictionary(), PlistValue::dictionaryOf({{"port", "Integer"}, {"on", "Boolean"}})) << name;
  }
  const std::string invalid = " is not a valid strings file";
  const struct {
    const char* what;
    std::string bytes;
    std::string fault;
  } cases[] = {{"utf8", "\"a\" = \"b\";", "File %" + invalid},
               {"void", "", "File %" + invalid},
               {"mark", utf16("/* nothing */"), "File %" + invalid},
               {"open", utf16("\"a\" = \"b\""), "File %" + invalid},
               {"odd", utf16("\"a\" = \"b\";") + "x", "Couldn't read file % - unknown error"}};
  for (const auto& [what, bytes, fault] : cases) {
    writeFile(path(what), bytes);
    Parser parser(path("little"));
    parser.setTypesDictionary(list("<dict/>"));
    parser.setGlobalError({});
    parser.setErrors({});
    parser.setTypesDictionaryFromStringsFile(path(what));
    std::string expected = fault;
    expected.replace(expected.find('%'), 1, path(what));
    EXPECT_EQ(logged().back(), "4 setTypesDictionaryFromStringsFile " + expected);
    EXPECT_EQ(parser.globalError(), PlistValue("setTypesDictionaryFromStringsFile: " + expected));
    EXPECT_FALSE(parser.typesDictionary().isNull()) << "the table stays";
    parser.setTypesDictionaryFromStringsFile({});
    EXPECT_TRUE(parser.typesDictionary().isNull());

    parser.setDefaultsDictionary(list("<dict/>"));
    parser.setDefaultsDictionaryFromFile(path(what));
    EXPECT_EQ(logged().back(), "4 setDefaultsDictionaryFromFile File " + path(what) + " is not a valid plist");
    EXPECT_FALSE(parser.defaultsDictionary().isNull());
    parser.setDefaultsDictionaryFromFile({});
    EXPECT_TRUE(parser.defaultsDictionary().isNull());
  }
  Parser missing(PlistValue(), path("no types"), path("no defaults"));
  EXPECT_THAT(texts(missing.errors()),
              ElementsAre("setTypesDictionaryFromStringsFile: File " + path("no types") + " not found",
                          "setDefaultsDictionaryFromFile: File " + path("no defaults") + " not found",
                          "readFile: File path not specified"));
}

TEST_F(Configuration, ConvertsTextAndValues) {
  Parser parser{PlistValue()};
  const auto array = [](std::initializer_list<PlistValue> elements) { return PlistValue::arrayOf(elements); };
  const double most = std::numeric_limits<double>::max();
  const struct {
    const char* type;
    PlistValue text;
    PlistValue value;
    PlistValue back;
  } cases[] = {
      {nullptr, "\t a b ", "a b", "a b"},
      {"String", " text ", "text", "text"},
      {"Integer", " 42 apples", 42, "42"},
      {"Integer", "apples", 0, "0"},
      {"Integer", "-7.9", -7, "-7"},
      {"Integer", " +9223372036854775808 ", std::uint64_t{1} << 63, "9223372036854775808"},
      {"Integer", "99999999999999999999", std::numeric_limits<std::uint64_t>::max(), "18446744073709551615"},
      {"Integer", "-9223372036854775809", std::numeric_limits<std::int64_t>::min(), "-9223372036854775808"},
      {"Real", "2.50x", 2.5, "2.5"},
      {"Real", "+.5e1.", 5.0, "5"},
      {"Real", "-12e", -12.0, "-12"},
      {"Real", "1e+", 1.0, "1"},
      {"Real", ".", 0.0, "0"},
      {"Real", "inf", 0.0, "0"},
      {"Real", "0x10", 0.0, "0"},
      {"Real", "1e999999999999999999999", most, {}},
      {"Real", "-0.001e400", -most, {}},
      {"Real", "1000e-400", 0.0, "0"},
      {"Boolean", "yes", true, "yes"},
      {"Boolean", "\tTrue ", true, "yes"},
      {"Boolean", "1", true, "yes"},
      {"Boolean", "on", false, "no"},
      {"Boolean", "", false, "no"},
      {"Boolean on off", "ON", true, "on"},
      {"Boolean on off", "yes", false, "off"},
      {"Boolean on", "on", "on", "on"},
      {"Boolean a b c", "a", "a", "a"},
      {"Array Integer ,", "1, 2,3", array({1, 2, 3}), "1,2,3"},
      {"Array Integer", "1  2", array({1, 0, 2}), "1 0 2"},
      {"Array String", "", array({""}), ""},
      {"Array String ::", "a:b:: c ::", array({"a:b", "c", ""}), "a:b::c::"},
      {"Array Real a b", "1 2", array({1.0, 2.0}), "1 2"},
      {"Array String ", "a b", array({"a b"}), "a b"},
      {"Array Boolean", "yes no", array({"yes", "no"}), "yes no"},
      {"Array", "a b", "a b", "a b"},
      {"Unknown", " 1 ", "1", "1"},
      {"Integer", {}, {}, {}},
  };
  for (const auto& [type, text, value, back] : cases) {
    PlistValue types = PlistValue::mutableDictionary();
    if (type != nullptr) types.set("key", type);
    parser.setTypesDictionary(types);
    const PlistValue made = parser.objectForKey("key", text);
    const std::string what = std::string(type == nullptr ? "none" : type) + " <- " + text.description();
    EXPECT_EQ(made, value) << what;
    EXPECT_EQ(made.isBoolean(), value.isBoolean()) << what;
    EXPECT_EQ(made.isReal(), value.isReal()) << what;
    if (back.isNull()) continue;
    EXPECT_EQ(parser.stringForKey("key", made), back) << what;
  }
  EXPECT_EQ(Parser::objectForType("Boolean", "yes"), PlistValue("yes"));
  EXPECT_EQ(Parser::objectForType({}, " 1"), PlistValue(" 1"));
  parser.setTypesDictionary(PlistValue::dictionaryOf({{"n", "Integer"}, {"a", "Array String"}, {"b", "Boolean"}}));
  for (const PlistValue& misfit : {PlistValue("text"), PlistValue::dictionaryOf({{"x", 1}})})
    for (const char* name : {"n", "a", "b"}) EXPECT_EQ(parser.stringForKey(name, misfit), misfit) << name;
}

TEST_F(Configuration, FillsInWhatIsMissing) {
  const auto dict = PlistValue::mutableDictionaryOf;
  const auto keyed = [&](std::initializer_list<PlistValue> elements) {
    return dict({{"list", PlistValue::mutableArrayOf(elements)}});
  };
  const auto element = [&](const char* id, const PlistValue& value = {}) { return dict({{"_id_", id}, {"v", value}}); };
  const struct {
    const char* what;
    PlistValue target, defaults, result;
    bool changed;
  } cases[] = {
      {"missing", dict({}), dict({{"a", dict({{"b", 1}})}}), dict({{"a", dict({{"b", 1}})}}), true},
      {"of another type", dict({{"a", "x"}}), dict({{"a", dict({})}}), dict({{"a", "x"}}), false},
      {"deeper", dict({{"a", dict({})}}), dict({{"a", dict({{"b", 1}})}}), dict({{"a", dict({{"b", 1}})}}), false},
      {"keyed array", keyed({element("1")}), keyed({element("2"), element("1", true)}),
       keyed({element("1", true), element("2")}), true},
      {"present elements only", keyed({element("1")}), keyed({element("1", 5)}), keyed({element("1", 5)}), false},
      {"the first of two for one element", keyed({element("1")}), keyed({element("1", 5), element("1", 6)}),
       keyed({element("1", 5)}), false},
      {"plain array", keyed({}), keyed({element("1")}), keyed({}), false},
  };
  for (const auto& [what, target, defaults, result, changed] : cases) {
    const PlistValue before = defaults.deepMutableCopy();
    EXPECT_EQ(Parser::populateMissingParametersInDictionary(target, defaults), changed) << what;
    EXPECT_EQ(target, result) << what;
    EXPECT_EQ(defaults, before) << what;
  }
  PlistValue target = PlistValue::mutableDictionary();
  const PlistValue defaults = list("<dict><key>a</key><dict/></dict>");
  Parser::populateMissingParametersInDictionary(target, defaults);
  PlistValue added = target.get("a");
  EXPECT_TRUE(added.set("b", 1));
  EXPECT_EQ(defaults.get("a").count(), 0U) << "a default is copied, not shared";
  EXPECT_FALSE(Parser::populateMissingParametersInDictionary(target, {}));

  PlistValue deepTarget = PlistValue::mutableDictionary();
  PlistValue deepDefaults = PlistValue::mutableDictionary();
  for (int i = 0; i < 200'000; ++i) {
    deepTarget = PlistValue::mutableDictionaryOf({{"d", deepTarget}});
    deepDefaults = PlistValue::mutableDictionaryOf({{"d", deepDefaults}, {"x", 1}});
  }
  EXPECT_TRUE(Parser::populateMissingParametersInDictionary(deepTarget, deepDefaults));
}

TEST_F(Configuration, WritesWithoutTouchingWhatTheFileIs) {
  namespace fs = std::filesystem;
  writeFile(path("file"), *writeXmlPropertyList(list("<dict><key>a</key><array/></dict>")));
  fs::permissions(path("file"), fs::perms(0600));
  fs::create_symlink("file", path("link"));
  Parser parser(path("link"));
  PlistValue settings = parser.dictionary();
  PlistValue array = settings.get("a");
  ASSERT_TRUE(array.append("new")) << "what is read accepts writes at every level";
  EXPECT_NE(parser.change()->unifiedDiff().find("<string>new</string>"), std::string::npos);
  EXPECT_EQ(Parser(path("file")).dictionary().get("a").count(), 0U) << "a dry run writes nothing";
  EXPECT_TRUE(parser.writeFile());
  EXPECT_TRUE(fs::is_symlink(path("link")));
  EXPECT_EQ(fs::status(path("file")).permissions(), fs::perms(0600));
  EXPECT_EQ(Parser(path("file")).dictionary(), settings);
  settings.set("bad", PlistValue("\x01"));
  EXPECT_FALSE(parser.writeFile()) << "no XML can carry that";
  EXPECT_EQ(parser.writeStatus(), kConfigStatusUnknownError);
  settings.set("bad", PlistValue(std::string(std::size_t{64} << 20U, 'x')));
  EXPECT_FALSE(parser.writeFile()) << "nobody would read that again";
  EXPECT_EQ(Parser(path("file")).readStatus(), kConfigStatusOK);
}

}  // namespace
}  // namespace ostrel
