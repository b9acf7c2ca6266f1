// The folder that applications share with the transfer service: where it is, whose it must be, and connecting to its socket.
#include "platform/linux/TransferDirectory.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

#include "support/ForkedChild.h"
#include "support/TemporaryDirectory.h"

namespace test {
namespace {

namespace fs = std::filesystem;
using platform::FileDescriptor;
using platform::TransferDirectory;

class TransferDirectoryTest : public testing::Test {
 protected:
  TransferDirectory open(const std::string& name) const { return *TransferDirectory::open(folder_.path() + "/" + name); }
  static FileDescriptor listenerAt(const TransferDirectory& directory) {
    FileDescriptor listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const sockaddr_un address = directory.socketAddress();
    EXPECT_EQ(::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(::listen(listener.get(), 4), 0);
    return listener;
  }
  static int errorOfConnecting(const TransferDirectory& directory) {
    const auto connection = directory.connect();
    return connection ? 0 : connection.error();
  }

  TemporaryDirectory folder_;
};

TEST_F(TransferDirectoryTest, TheFolderIsTheVariablesElseBelowTheStateElseBelowTheHome) {
  EXPECT_EQ(runInChild([] {
              setenv("HOME", "/home/someone/", 1);
              setenv("XDG_STATE_HOME", "/state//", 1);
              setenv("KESTROVA_TRANSFER_DIR", "/the/folder/", 1);
              EXPECT_EQ(TransferDirectory::pathFromEnvironment(), "/the/folder");
              setenv("KESTROVA_TRANSFER_DIR", "no/absolute/path", 1);
              EXPECT_EQ(TransferDirectory::pathFromEnvironment(), "/state/kestrova-transferd");
              setenv("XDG_STATE_HOME", "", 1);
              EXPECT_EQ(TransferDirectory::pathFromEnvironment(), "/home/someone/.local/state/kestrova-transferd");
              unsetenv("HOME");
              const auto ofTheUser = TransferDirectory::pathFromEnvironment();
              ASSERT_TRUE(ofTheUser);
              EXPECT_TRUE(ofTheUser->ends_with("/.local/state/kestrova-transferd")) << *ofTheUser;
            }),
            0);
}

TEST_F(TransferDirectoryTest, AFolderOfAnotherUserIsRefused) {
  ASSERT_EQ(::geteuid(), 0U) << "only root can give a folder to another user";
  const std::string path = folder_.path() + "/theirs";
  fs::create_directory(path);
  ASSERT_EQ(::chown(path.c_str(), 65534, 65534), 0);
  const auto opened = TransferDirectory::open(path);
  ASSERT_FALSE(opened);
  EXPECT_EQ(opened.error().localizedDescription(), "The folder “" + path + "” cannot be used: it belongs to another user.");
}

// Its socket.

TEST_F(TransferDirectoryTest, AConnectionNeitherBlocksNorIsInherited) {
  for (const std::string& name : {std::string("transfers"), std::string(120, 'l')}) {  // the second is too long for an address
    const TransferDirectory directory = open(name);
    const FileDescriptor listener = listenerAt(directory);
    const auto connection = directory.connect();
    ASSERT_TRUE(connection) << connection.error();
    EXPECT_NE(::fcntl(connection->get(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(::fcntl(connection->get(), F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_TRUE(FileDescriptor(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC)).isOpen());
  }
}

TEST_F(TransferDirectoryTest, WithoutAServiceTheErrorTellsNoneFromOneThatEndedSuddenly) {
  const TransferDirectory directory = open("transfers");
  EXPECT_EQ(errorOfConnecting(directory), ENOENT);
  listenerAt(directory).close();
  EXPECT_EQ(errorOfConnecting(directory), ECONNREFUSED);
}

}  // namespace
}  // namespace test
