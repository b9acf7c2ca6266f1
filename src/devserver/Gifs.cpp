// Writing, keeping and dropping of uploaded GIFs.
#include "devserver/Gifs.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "devserver/Files.h"

namespace devserver {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kSuffix = ".gif";
constexpr std::string_view kPartSuffix = ".part";

std::string reasonOf(int error) { return std::generic_category().message(error); }

/// Six digits or more, so that names sort as their numbers do for a long time.
std::string digits(std::uint64_t number) {
  const std::string text = std::to_string(number);
  return std::string(text.size() < 6 ? 6 - text.size() : 0, '0') + text;
}

std::string nameOfKept(std::uint64_t number) { return digits(number).append(kSuffix); }
std::string nameOfPart(std::uint64_t number) { return std::string(".").append(digits(number)).append(kPartSuffix); }

/// The number in a name of that form; absent for any other name.
std::optional<std::uint64_t> numberIn(std::string_view name, std::string (*nameOf)(std::uint64_t)) {
  const std::string_view text = name.starts_with('.') ? name.substr(1) : name;
  std::uint64_t number = 0;
  const auto read = std::from_chars(text.data(), text.data() + text.size(), number);
  if (read.ec != std::errc() || nameOf(number) != name) return std::nullopt;
  return number;
}

}  // namespace

/// The hash of what has come so far.
class Gifs::Intake::Digest {
 public:
  Digest() : context_(EVP_MD_CTX_new()) {
    if (!context_ || EVP_DigestInit_ex2(context_, EVP_sha256(), nullptr) != 1) throw std::runtime_error("OpenSSL has no SHA-256");
  }
  ~Digest() { EVP_MD_CTX_free(context_); }
  Digest(const Digest&) = delete;
  Digest& operator=(const Digest&) = delete;

  void add(std::string_view piece) {
    if (EVP_DigestUpdate(context_, piece.data(), piece.size()) != 1) throw std::runtime_error("OpenSSL cannot hash");
  }
  std::string hex() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> hash{};
    unsigned length = 0;
    if (EVP_DigestFinal_ex(context_, hash.data(), &length) != 1) throw std::runtime_error("OpenSSL cannot hash");
    std::string text;
    for (unsigned at = 0; at < length; ++at) text += {"0123456789abcdef"[hash.at(at) >> 4U], "0123456789abcdef"[hash.at(at) & 15U]};
    return text;
  }

 private:
  EVP_MD_CTX* context_;
};

// --- The folder.

std::expected<std::unique_ptr<Gifs>, std::string> Gifs::open(const std::optional<fs::path>& folder, Limits limits) {
  std::string name = folder ? folder->string() : (fs::temp_directory_path() / "kestrova-devserver-gifs-XXXXXX").string();
  if (folder) {
    if (auto made = makePrivateFolder(*folder); !made) return std::unexpected(made.error());
  } else if (!::mkdtemp(name.data())) {
    return std::unexpected("cannot make the folder " + name + ": " + reasonOf(errno));
  }
  std::unique_ptr<Gifs> gifs(new Gifs(name, !folder, limits));
  gifs->adopt();
  return gifs;
}

Gifs::Gifs(fs::path folder, bool isTemporary, Limits limits)
    : folder_(std::move(folder)), isTemporary_(isTemporary), limits_(limits) {}

Gifs::~Gifs() {
  std::error_code ignored;
  if (isTemporary_) fs::remove_all(folder_, ignored);
}

/// Counts what earlier runs have kept, and removes what they have not.
void Gifs::adopt() {
  std::error_code error;
  std::vector<Kept> found;
  std::vector<fs::path> parts;
  for (const auto& entry : fs::directory_iterator(folder_, error)) {
    const std::string name = entry.path().filename().string();
    if (const auto number = numberIn(name, nameOfKept)) found.push_back({*number, entry.file_size(error)});
    if (numberIn(name, nameOfPart)) parts.push_back(entry.path());
  }
  for (const fs::path& part : parts) fs::remove(part, error);
  std::ranges::sort(found, {}, &Kept::number);
  kept_.assign(found.begin(), found.end());
  for (const Kept& one : kept_) keptBytes_ += one.bytes;
  if (!kept_.empty()) lastNumber_ = kept_.back().number;
}

std::expected<std::string, std::string> Gifs::content(std::string_view name, std::uint64_t longest) const {
  // A name of the one form leads nowhere else.
  if (!numberIn(name, nameOfKept)) return std::unexpected("There is no such GIF");
  std::error_code error;
  const std::uintmax_t size = fs::file_size(pathOf(name), error);
  if (error) return std::unexpected("There is no such GIF");
  if (size > longest) return std::unexpected("The GIF is too large to be shown");
  return readFile(pathOf(name));
}

void Gifs::removeOldest() {
  std::error_code ignored;
  fs::remove(pathOf(nameOfKept(kept_.front().number)), ignored);
  keptBytes_ -= kept_.front().bytes;
  kept_.pop_front();
}

/// Makes room for bytes that are on their way; false when all that could go has gone.
bool Gifs::makeRoom(std::uint64_t bytes) {
  const std::lock_guard lock(mutex_);
  while (!kept_.empty() && keptBytes_ + comingBytes_ + bytes > limits_.bytes) removeOldest();
  if (comingBytes_ + bytes > limits_.bytes) return false;
  comingBytes_ += bytes;
  return true;
}

void Gifs::giveBack(std::uint64_t bytes) {
  const std::lock_guard lock(mutex_);
  comingBytes_ -= bytes;
}

std::expected<std::unique_ptr<Gifs::Intake>, std::string> Gifs::begin() {
  std::uint64_t number = 0;
  {
    const std::lock_guard lock(mutex_);
    number = ++lastNumber_;
  }
  const fs::path part = pathOf(nameOfPart(number));
  const int descriptor = ::open(part.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR);
  if (descriptor < 0) return std::unexpected("cannot write " + part.string() + ": " + reasonOf(errno));
  return std::unique_ptr<Intake>(new Intake(*this, number, descriptor));
}

// --- One GIF.

Gifs::Intake::Intake(Gifs& gifs, std::uint64_t number, int descriptor)
    : gifs_(gifs), number_(number), descriptor_(descriptor), digest_(std::make_unique<Digest>()) {}

Gifs::Intake::~Intake() {
  ::close(descriptor_);
  if (isKept_) return;
  std::error_code ignored;
  fs::remove(gifs_.pathOf(nameOfPart(number_)), ignored);
  gifs_.giveBack(bytes_);
}

std::string Gifs::Intake::name() const { return nameOfKept(number_); }

std::expected<void, std::string> Gifs::Intake::add(std::string_view piece) {
  if (!gifs_.makeRoom(piece.size())) return std::unexpected("No room for the GIF");
  bytes_ += piece.size();
  digest_->add(piece);
  while (!piece.empty()) {
    const ssize_t written = ::write(descriptor_, piece.data(), piece.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return std::unexpected("The GIF cannot be written: " + reasonOf(errno));
    piece.remove_prefix(static_cast<std::size_t>(written));
  }
  return {};
}

std::string Gifs::Intake::hash() { return digest_->hex(); }

std::expected<std::string, std::string> Gifs::Intake::keep() {
  const fs::path place = gifs_.pathOf(name());
  const std::lock_guard lock(gifs_.mutex_);
  while (!gifs_.kept_.empty() && gifs_.kept_.size() >= gifs_.limits_.files) gifs_.removeOldest();
  if (::rename(gifs_.pathOf(nameOfPart(number_)).c_str(), place.c_str()) != 0)
    return std::unexpected("The GIF cannot be kept: " + reasonOf(errno));
  isKept_ = true;
  gifs_.comingBytes_ -= bytes_;
  gifs_.keptBytes_ += bytes_;
  gifs_.kept_.push_back({number_, bytes_});
  return name();
}

void Gifs::Intake::discard() {
  const std::lock_guard lock(gifs_.mutex_);
  const auto found = std::ranges::find(gifs_.kept_, number_, &Kept::number);
  if (found == gifs_.kept_.end()) return;
  std::error_code ignored;
  fs::remove(gifs_.pathOf(name()), ignored);
  gifs_.keptBytes_ -= bytes_;
  gifs_.kept_.erase(found);
}

}  // namespace devserver
