// The user defaults file: whatever bytes it holds are taken or set aside, and never lost; what is set then is there for the next
// process.
//
// Input: the file's bytes.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "common/Check.h"
#include "common/Input.h"
#include "common/SecondJSON.h"
#include "platform/linux/FileUserDefaults.h"
#include "platform/linux/PropertyListCoding.h"
#include "platform/linux/RapidJSONSerialization.h"
#include "support/TemporaryDirectory.h"

namespace {

namespace fs = std::filesystem;
using platform::Dictionary;
using platform::Value;

constexpr const char* kOwnKey = "the fuzzer's own key";

class Folder {
 public:
  fs::path file(const std::string& name = "user-defaults.json") const { return fs::path(directory_.path()) / "app" / name; }

  void fill(std::string_view bytes) const {
    fs::create_directories(file().parent_path());
    for (const auto& entry : fs::directory_iterator(file().parent_path())) fs::remove(entry.path());
    std::ofstream(file(), std::ios::binary) << bytes;
  }
  static std::string bytesOf(const fs::path& path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
  }
  /// A process of its own over the folder.
  std::shared_ptr<platform::UserDefaults> defaults() const {
    return platform::makeFileUserDefaults({.bundleIdentifier = "app", .homeDirectory = directory_.path()},
                                          platform::makeRapidJSONSerialization());
  }

 private:
  test::TemporaryDirectory directory_;
};

/// What the file's document promises, when it is one.
std::optional<Dictionary> documentOf(std::string_view text) {
  const auto document = fuzz::readBySecondParser(text);
  if (!document || !document->isObject()) return std::nullopt;
  const Value* const version = document->object().find("version");
  const Value* const values = document->object().find("values");
  if (!version || *version != Value(1) || !values || !values->isObject()) return std::nullopt;
  const auto decoded = platform::decodedPropertyList(*values);
  return decoded && decoded->isObject() ? std::optional(decoded->object()) : std::nullopt;
}

void expectHeld(platform::UserDefaults& defaults, const Dictionary& values) {
  defaults.synchronize();  // looks at the file, also when there is no value to ask for
  for (const auto& [key, value] : values) {
    const auto read = defaults.objectForKey(key);
    fuzz::check(read && fuzz::isIdentical(*read, value), "a value is missing or another");
  }
}

/// Values that were decoded are written again as texts that decode to the same.
void checkCoding(const Dictionary& values) {
  const auto json = platform::makeRapidJSONSerialization();
  const auto text = json->write(platform::encodedPropertyList(Value(values)));
  fuzz::check(text.has_value(), "decoded values cannot be written");
  const auto document = fuzz::readBySecondParser(text->bytes());
  fuzz::check(document.has_value(), "written values are not read");
  const auto decoded = platform::decodedPropertyList(*document);
  fuzz::check(decoded && fuzz::isIdentical(*decoded, Value(values)), "values changed on the way");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Folder kFolder;
  const std::string_view text = fuzz::Input(data, size).rest();
  kFolder.fill(text);
  const auto held = documentOf(text);

  expectHeld(*kFolder.defaults(), held.value_or(Dictionary()));
  fuzz::check(fs::exists(kFolder.file()) == held.has_value(), held ? "a good file was set aside" : "a bad file stayed");
  if (!held) fuzz::check(Folder::bytesOf(kFolder.file("user-defaults.json.corrupt-1")) == text, "a bad file was changed");

  kFolder.defaults()->setObjectForKey(Value("set"), kOwnKey);
  Dictionary expected = held.value_or(Dictionary());
  expected.setObjectForKey(Value("set"), kOwnKey);
  expectHeld(*kFolder.defaults(), expected);
  const auto written = documentOf(Folder::bytesOf(kFolder.file()));
  fuzz::check(written && fuzz::isIdentical(Value(*written), Value(expected)), "the file holds other values");
  fuzz::check(!fs::exists(kFolder.file("user-defaults.json.new")), "a new file was left");
  fuzz::check(!fs::exists(kFolder.file("user-defaults.json.corrupt-2")), "a good file was set aside");
  checkCoding(expected);
  return 0;
}
