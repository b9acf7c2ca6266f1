// The server's own certificate authority, kept in its state folder.
//
// Four PEM files of mode 0600: ca.pem and ca.key, made at the first start and kept for ten years; server.pem and server.key for
// localhost, 127.0.0.1 and ::1, made anew when less than thirty days are left. Whoever trusts ca.pem trusts it for these names
// only: the authority is constrained to them.
#pragma once

#include <chrono>
#include <expected>
#include <filesystem>
#include <string>

namespace devserver {

struct Certificates {
  std::filesystem::path authority;    // what a client is to trust
  std::filesystem::path certificate;  // the server's
  std::filesystem::path key;          // the server's
  bool madeAuthority = false;
  bool madeCertificate = false;
};

/// Makes in `state` what is missing or near its end. Files that cannot be read or do not belong together are an error that names
/// them: an authority that somebody trusts is never replaced behind their back before it nears its end. Two servers may do this at
/// once.
std::expected<Certificates, std::string> prepareCertificates(const std::filesystem::path& state,
                                                             std::chrono::system_clock::time_point now);

}  // namespace devserver
