// The table from error numbers to codes and texts.
#include "platform/linux/FileErrors.h"

#include <cerrno>
#include <cstring>

namespace platform {
namespace {

Error cocoaError(CocoaErrorCode code, std::string text, int systemError) {
  auto underlying = std::make_shared<Error>(kPOSIXErrorDomain, systemError,
                                            "The operation couldn’t be completed. " + systemErrorText(systemError));
  return Error(kCocoaErrorDomain, code, std::move(text), {}, std::move(underlying));
}

CocoaErrorCode readingCode(int systemError) {
  switch (systemError) {
    case ENOENT:
      return kFileReadNoSuchFile;
    case EACCES:
    case EPERM:
      return kFileReadNoPermission;
    default:
      return kFileReadUnknown;
  }
}

CocoaErrorCode writingCode(int systemError) {
  switch (systemError) {
    case ENOENT:
      return kFileNoSuchFile;
    case EACCES:
    case EPERM:
      return kFileWriteNoPermission;
    case EEXIST:
      return kFileWriteFileExists;
    case ENOSPC:
    case EDQUOT:
      return kFileWriteOutOfSpace;
    case EROFS:
      return kFileWriteVolumeReadOnly;
    default:
      return kFileWriteUnknown;
  }
}

std::string quoted(std::string_view name) { return "“" + std::string(name) + "”"; }

std::string writingText(CocoaErrorCode code, std::string_view path, bool creating) {
  const std::string name = quoted(nameOfPath(path));
  const std::string folder = quoted(nameOfPath(parentOfPath(path)));
  const std::string notSaved = "The file " + name + " couldn’t be saved in the folder " + folder;
  switch (code) {
    case kFileNoSuchFile:
      return creating ? "The folder " + folder + " doesn’t exist." : "The file " + name + " doesn’t exist.";
    case kFileWriteNoPermission:
      return "You don’t have permission to save the file " + name + " in the folder " + folder + ".";
    case kFileWriteFileExists:
      return notSaved + " because a file with the same name already exists.";
    case kFileWriteOutOfSpace:
      return notSaved + " because the volume is out of space.";
    case kFileWriteVolumeReadOnly:
      return notSaved + " because the volume is read only.";
    default:
      return notSaved + ".";
  }
}

}  // namespace

Error fileReadingError(int systemError, std::string_view path) {
  const CocoaErrorCode code = readingCode(systemError);
  std::string text = "The file " + quoted(nameOfPath(path)) + " couldn’t be opened";
  if (code == kFileReadNoSuchFile) text += " because there is no such file";
  if (code == kFileReadNoPermission) text += " because you don’t have permission to view it";
  return cocoaError(code, text + ".", systemError);
}

Error fileWritingError(int systemError, std::string_view path, bool creating) {
  const CocoaErrorCode code = writingCode(systemError);
  return cocoaError(code, writingText(code, path, creating), systemError);
}

Error fileRemovalError(int systemError, std::string_view path) {
  const CocoaErrorCode code = writingCode(systemError == EEXIST ? ENOTEMPTY : systemError);
  std::string text = quoted(nameOfPath(path)) + " couldn’t be removed";
  if (code == kFileWriteNoPermission) text += " because you don’t have permission to access it";
  if (code == kFileWriteVolumeReadOnly) text += " because the volume is read only";
  return cocoaError(code, text + ".", systemError);
}

Error fileTransferError(std::string_view verb, int systemError, std::string_view source, std::string_view target) {
  const CocoaErrorCode code = writingCode(systemError);
  const std::string sentence = quoted(nameOfPath(source)) + " couldn’t be " + std::string(verb) + " to " +
                               quoted(nameOfPath(parentOfPath(target))) + " because ";
  if (code == kFileWriteFileExists) return cocoaError(code, sentence + "an item with the same name already exists.", systemError);
  if (code == kFileNoSuchFile) {
    return cocoaError(code, sentence + "either the former doesn’t exist, or the folder containing the latter doesn’t exist.",
                      systemError);
  }
  return cocoaError(code, writingText(code, target, true), systemError);
}

Error absentFileURLError() { return Error(kCocoaErrorDomain, kFileNoSuchFile); }

Exception fileHandleException(std::string_view operation, int systemError) {
  return Exception(kFileHandleOperationException,
                   "*** -[NSConcreteFileHandle " + std::string(operation) + "]: " + systemErrorText(systemError));
}

std::string systemErrorText(int systemError) {
  const char* text = strerrordesc_np(systemError);  // unlike strerror, neither translated nor shared between threads
  return text ? text : "Unknown error " + std::to_string(systemError);
}

std::string_view withoutTrailingSlashes(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  return path;
}

std::string parentOfPath(std::string_view path) {
  path = withoutTrailingSlashes(path);
  const std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return ".";
  return std::string(slash == 0 ? "/" : withoutTrailingSlashes(path.substr(0, slash)));
}

std::string nameOfPath(std::string_view path) {
  path = withoutTrailingSlashes(path);
  const std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos || path == "/") return std::string(path);
  return std::string(path.substr(slash + 1));
}

}  // namespace platform
