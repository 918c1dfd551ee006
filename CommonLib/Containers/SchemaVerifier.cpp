#include "Containers/SchemaVerifier.h"

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "Containers/PropertyList.h"
#include "Platform/Files.h"
#include "Platform/SystemLog.h"

namespace ostrel {
namespace {

using Kind = PlistValue::Kind;

Kind comparedKind(const PlistValue& value) noexcept { return value.isBoolean() ? Kind::number : value.kind(); }

std::string_view kindName(const PlistValue& value) noexcept {
  switch (comparedKind(value)) {
    case Kind::array:
      return "array";
    case Kind::data:
      return "data";
    case Kind::date:
      return "date";
    case Kind::number:
      return "number";
    case Kind::string:
      return "string";
    case Kind::dictionary:
      return "dictionary";
    default:
      return "null";
  }
}

void requireOneElement(const PlistValue& schema) {
  if (schema.isArray() && schema.count() == 1) return;
  constexpr const char* failed = "Assertion failed: ([tRecord count] == 1), function verifyArrayRecord:guidedBy:";
  std::fprintf(stderr, "%s\n", failed);
  logAt(LogLevel::critical, "[%d] %s", processId(), failed);
  std::abort();
}

/// Walks a record and its template side by side, in the template's order, until something does not match.
class Verification {
 public:
  bool object(const PlistValue& value, const PlistValue& schema) { return admit(value, schema) && run(); }
  bool dictionary(const PlistValue& record, const PlistValue& schema) {
    open_.push_back({&record, &schema, false});
    return run();
  }
  bool array(const PlistValue& record, const PlistValue& schema) {
    requireOneElement(schema);
    open_.push_back({&record, &schema, true});
    return run();
  }

 private:
  struct Frame {
    const PlistValue* record;
    const PlistValue* schema;
    bool isArray;
    std::size_t next = 0;
  };

  bool admit(const PlistValue& value, const PlistValue& schema) {
    if (!SchemaVerifier::classesMatch(value, schema)) {
      logAt(LogLevel::info, "Object does not match schema. Class is %s. Expected %s.\n", kindName(value),
            kindName(schema));
      return false;
    }
    if (value.isArray()) requireOneElement(schema);
    if (value.isArray() || value.isDictionary()) open_.push_back({&value, &schema, value.isArray()});
    return true;
  }

  bool run() {
    while (!open_.empty()) {
      if (!step(open_.back())) return false;
    }
    return true;
  }

  bool step(Frame& frame) {
    const std::size_t next = frame.next++;
    if (frame.isArray) {
      if (next < frame.record->elements().size())
        return admit(frame.record->elements()[next], frame.schema->elements()[0]);
    } else if (next < frame.schema->entries().size()) {
      const PlistEntry& expected = frame.schema->entries()[next];
      const PlistValue* value = frame.record->find(expected.keyText());
      return value == nullptr || admit(*value, expected.value);
    }
    open_.pop_back();
    return true;
  }

  std::vector<Frame> open_;
};

void print(const std::string& text) { std::fwrite(text.data(), 1, text.size(), stdout); }

bool runTest(const std::string& prefix, long number) {
  const std::string ending = format("%ld.plist", number);
  const std::string paths[] = {prefix + "in." + ending, prefix + "template." + ending, prefix + "out." + ending};
  for (const std::string& path : paths) {
    if (!fileExists(path)) return false;
  }
  const PlistValue schema = SchemaVerifier::deserializePlistAtPath(paths[1]);
  const PlistValue input = SchemaVerifier::deserializePlistAtPath(paths[0]);
  const std::string output = SchemaVerifier::removeBadRecords(input, schema).description();
  const std::string expected = SchemaVerifier::deserializePlistAtPath(paths[2]).description();
  if (output == expected) {
    print(format("=#=#=#=#=#=#=#=#=#=Test %ld passed=#=#=#=#=#=#=#=#=#=\n", number));
    return true;
  }
  print(format("=#=#=#=#=#=#=#=#=#=Test %ld FAILED=#=#=#=#=#=#=#=#=#=\n", number));
  print(format("Input    was %s\n\n", input.description()));
  print(format("Template Was %s\n\n", schema.description()));
  print(format("Output   Was %s\n\n", output));
  print(format("Expected     %s\n\n", expected));
  return true;
}

}  // namespace

bool SchemaVerifier::classesMatch(const PlistValue& value, const PlistValue& schema) noexcept {
  return !value.isNull() && comparedKind(value) == comparedKind(schema);
}

bool SchemaVerifier::verifyObject(const PlistValue& value, const PlistValue& schema) {
  return Verification().object(value, schema);
}

bool SchemaVerifier::verifyDictRecord(const PlistValue& record, const PlistValue& schema) {
  return Verification().dictionary(record, schema);
}

bool SchemaVerifier::verifyArrayRecord(const PlistValue& record, const PlistValue& schema) {
  return Verification().array(record, schema);
}

PlistValue SchemaVerifier::removeBadRecords(const PlistValue& records, const PlistValue& schema,
                                            PlistValue* outFailSet) {
  PlistValue good = PlistValue::mutableArray();
  PlistValue bad = PlistValue::mutableArray();
  for (const PlistValue& record : records.elements()) {
    if (!record.isDictionary() || !schema.isDictionary()) continue;
    (verifyDictRecord(record, schema) ? good : bad).append(record);
  }
  if (outFailSet != nullptr) *outFailSet = bad.count() == 0 ? PlistValue() : bad;
  return good;
}

PlistValue SchemaVerifier::deserializePlistAtPath(const std::string& path) {
  const auto bytes = readWholeFile(path);
  return bytes ? readPropertyList(*bytes) : PlistValue();
}

void SchemaVerifier::testFromPath(const std::string& prefix) {
  for (long number = 1; runTest(prefix, number);) ++number;
  std::fflush(stdout);
}

}  // namespace ostrel
