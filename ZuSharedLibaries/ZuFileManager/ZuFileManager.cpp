#include "ZuFileManager/ZuFileManager.hpp"

#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <vector>

#include "ZuFoundation/FatalError.hpp"
#include "ZuFoundation/internal/Posix.hpp"

namespace zu {
namespace {

using detail::FileDescriptor;

std::mutex gOverrideMutex;
std::optional<std::string> gApplicationDataOverride;

// Creates `path` with its parents unless something is there already; stops the program when it cannot.
void ensureDirectory(const std::string& path) {
  std::error_code error;
  if (std::filesystem::exists(path, error)) return;
  std::filesystem::create_directories(path, error);
  if (error) fatalError("Cannot create the folder " + path + ": " + error.message());
}

Result<void> copyAll(int from, int to) {
  std::vector<char> buffer(1 << 20);
  while (true) {
    const ssize_t count = detail::readSome(from, buffer.data(), buffer.size());
    if (count < 0) return Error::posix(errno);
    if (count == 0) return {};
    if (auto written = detail::writeAll(to, buffer.data(), static_cast<std::size_t>(count)); !written) {
      return written;
    }
  }
}

// The cross-file-system move: a flushed copy renamed into place, then the source removed.
Result<void> copyIntoPlace(const std::string& from, const std::string& to, const std::string& folder) {
  const auto source = FileDescriptor::open(from, O_RDONLY);
  if (!source) return Error::posix(errno);
  std::string temporary = folder + "/.moving.XXXXXX";
  const FileDescriptor target(::mkostemp(temporary.data(), O_CLOEXEC));
  if (!target) return Error::posix(errno);
  Result<void> copied = copyAll(source.get(), target.get());
  if (copied && ::fsync(target.get()) != 0) copied = Error::posix(errno);
  if (copied && ::rename(temporary.c_str(), to.c_str()) != 0) copied = Error::posix(errno);
  if (!copied) {
    ::unlink(temporary.c_str());
    return copied;
  }
  ::unlink(from.c_str());
  return {};
}

Result<void> move(const std::string& from, const std::string& to) {
  const std::string folder = std::filesystem::path(to).parent_path().string();
  const auto lock = FileDescriptor::open(folder.empty() ? "." : folder, O_RDONLY | O_DIRECTORY);
  if (!lock) return Error::posix(errno);
  // Released when `lock` closes. A folder that cannot be locked is moved into all the same.
  (void)detail::retryingInterrupted([&] { return ::flock(lock.get(), LOCK_EX); });
  if (::rename(from.c_str(), to.c_str()) != 0) {
    if (errno != EXDEV) return Error::posix(errno);
    if (auto copied = copyIntoPlace(from, to, folder); !copied) return copied;
  }
  return detail::syncFolder(folder);
}

}  // namespace

std::string ZuFileManager::userDataDirectory() {
  // The SDK never changes the environment, so reading it races with nothing of ours.
  const char* xdgDataHome = std::getenv("XDG_DATA_HOME");  // NOLINT(concurrency-mt-unsafe)
  if (xdgDataHome && xdgDataHome[0] == '/') return xdgDataHome;
  const char* home = std::getenv("HOME");  // NOLINT(concurrency-mt-unsafe)
  return std::string(home ? home : "") + "/.local/share";
}

void ZuFileManager::setApplicationDataDirectory(std::optional<std::string> path) {
  std::lock_guard lock(gOverrideMutex);
  gApplicationDataOverride = std::move(path);
}

std::string ZuFileManager::applicationDataDirectory() {
  std::lock_guard lock(gOverrideMutex);
  return gApplicationDataOverride.value_or(userDataDirectory() + "/" + program_invocation_short_name);
}

URL ZuFileManager::documentsDirectory() {
  const std::string path = applicationDataDirectory() + "/Documents";
  ensureDirectory(path);
  return URL::fileURLWithPath(path, true);
}

URL ZuFileManager::documentsSubdirectory(std::string_view name) {
  if (!isPlainPathComponent(name)) fatalError("Not a folder name: " + std::string(name));
  URL folder = documentsDirectory().appendingPathComponent(name, true);
  ensureDirectory(folder.path());
  return folder;
}

bool ZuFileManager::isPlainPathComponent(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos &&
         name.find('\0') == std::string_view::npos;
}

bool ZuFileManager::fileExists(const URL& url) {
  struct stat status {};
  return ::stat(url.path().c_str(), &status) == 0;
}

std::optional<Data> ZuFileManager::contents(const std::string& atPath) {
  auto bytes = detail::readWholeFile(atPath);
  return bytes ? std::optional(std::move(*bytes)) : std::nullopt;
}

Result<void> ZuFileManager::write(const Data& bytes, const URL& to) {
  const std::filesystem::path path = to.path();
  const std::filesystem::path temporary = path.parent_path() / ("." + path.filename().string() + ".writing");
  return detail::replaceFileDurably(path.string(), temporary.string(), bytes);
}

Result<void> ZuFileManager::removeItem(const URL& at) {
  if (::unlink(at.path().c_str()) != 0) return Error::posix(errno);
  return {};
}

void ZuFileManager::moveFile(const URL& fromURL, const URL& to, const MoveCompletion& completion) {
  ::unlink(to.path().c_str());  // a destination that cannot be removed makes the move below fail
  const Result<void> moved = move(fromURL.path(), to.path());
  if (!moved) return completion(false, moved.error());
  completion(true, std::nullopt);
}

}  // namespace zu
