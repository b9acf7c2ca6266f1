// The GIFs that were uploaded, as files in a folder: each whole, or not there.
//
// A GIF is written to `.<number>.part` while it comes and renamed to `<number>.gif` when it was taken; numbers grow. What is kept
// is bounded: the oldest go when a new one needs their room. Parts that an earlier run left behind go at the start.
#pragma once

#include <cstdint>
#include <deque>
#include <expected>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace devserver {

/// Any thread.
class Gifs {
 public:
  struct Limits {
    std::size_t files = 1000;
    std::uint64_t bytes = 4ULL * 1024 * 1024 * 1024;  // of what is kept and what is on its way, together
  };

  /// In this folder, which is made if it is missing. Without one, in a temporary folder that goes with the object.
  static std::expected<std::unique_ptr<Gifs>, std::string> open(const std::optional<std::filesystem::path>& folder, Limits limits);
  static std::expected<std::unique_ptr<Gifs>, std::string> open(const std::optional<std::filesystem::path>& folder) {
    return open(folder, Limits());
  }
  ~Gifs();
  Gifs(const Gifs&) = delete;
  Gifs& operator=(const Gifs&) = delete;

  const std::filesystem::path& folder() const { return folder_; }
  /// What a GIF of that name holds, when it is in the folder and not longer than this; else why it cannot be had.
  std::expected<std::string, std::string> content(std::string_view name, std::uint64_t longest) const;

  /// One GIF on its way. Used by one thread; leaves nothing unless it was kept.
  class Intake {
   public:
    ~Intake();
    Intake(const Intake&) = delete;
    Intake& operator=(const Intake&) = delete;

    /// Adds a piece; what is wrong when there is no room for it.
    std::expected<void, std::string> add(std::string_view piece);
    /// The SHA-256 of all pieces, in hexadecimal. Once, after the last piece.
    std::string hash();
    /// Puts the file in place and gives its name in the folder.
    std::expected<std::string, std::string> keep();
    /// Takes a file that was kept away again.
    void discard();

   private:
    friend class Gifs;
    class Digest;
    Intake(Gifs& gifs, std::uint64_t number, int descriptor);
    std::string name() const;

    Gifs& gifs_;
    const std::uint64_t number_;
    int descriptor_;
    std::uint64_t bytes_ = 0;
    bool isKept_ = false;
    std::unique_ptr<Digest> digest_;
  };
  std::expected<std::unique_ptr<Intake>, std::string> begin();

 private:
  struct Kept {
    std::uint64_t number = 0;
    std::uint64_t bytes = 0;
  };

  Gifs(std::filesystem::path folder, bool isTemporary, Limits limits);
  void adopt();
  std::filesystem::path pathOf(std::string_view name) const { return folder_ / name; }
  bool makeRoom(std::uint64_t bytes);
  void removeOldest();
  void giveBack(std::uint64_t bytes);

  const std::filesystem::path folder_;
  const bool isTemporary_;
  const Limits limits_;
  std::mutex mutex_;
  std::deque<Kept> kept_;          // the oldest first
  std::uint64_t keptBytes_ = 0;    // of these
  std::uint64_t comingBytes_ = 0;  // of all that is on its way
  std::uint64_t lastNumber_ = 0;
};

}  // namespace devserver
