// What the command remembers of shares: those that it submitted or asked for, in a file of its own in the application's folder.
//
// `command-shares.json` holds {"shares": [...]}, each in the form of docs/formats/share.md and with its referral code; the newest
// last. The client neither reads nor writes it. It is replaced in one step, and only by a command that holds the home.
#pragma once

#include <cstddef>
#include <expected>
#include <string>
#include <vector>

#include "companions/KSVShare.h"

namespace cli {

class ShareFile {
 public:
  /// More are not remembered; the oldest go first.
  static constexpr std::size_t kMaxShares = 1000;

  /// The remembered shares; none when there is no file. Else what is wrong with the folder or the file.
  static std::expected<ShareFile, std::string> read();

  /// Remembers a share that has a referral code, in the place of what was known of it.
  void remember(const KSVShare& share);
  std::expected<void, std::string> write() const;

  const std::vector<KSVShare>& shares() const { return shares_; }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
  std::vector<KSVShare> shares_;
};

}  // namespace cli
