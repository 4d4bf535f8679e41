#include "sprom/cli/backup.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <system_error>
#include <vector>

#include "sprom/base/file.h"

namespace tool {
namespace {

namespace fs = std::filesystem;

constexpr size_t backups_kept = 20;  // of a SPROM, in the default directory
constexpr std::string_view backup_end = ".bin";

std::string default_directory() {
  const char *directory = getenv("SPROM_BACKUP_DIR");
  return directory == nullptr || *directory == '\0' ? "/var/tmp" : directory;
}

// What the names of a SPROM's backups begin with.
std::string default_prefix(const target_t &target) {
  std::string name = "sprom-";
  for (const char c : target.name()) {
    if (c != ' ') name += c;
  }
  return name;
}

// The SPROM, the day and the time.
std::string default_name(const target_t &target) {
  const std::string name = default_directory() + "/" + default_prefix(target);
  const time_t now = time(nullptr);
  struct tm local {};
  std::array<char, 24> stamp;
  (void)strftime(stamp.data(), stamp.size(), "-%Y%m%d-%H%M%S", localtime_r(&now, &local));
  return name + stamp.data();
}

// Makes the first file of these names that nobody has: begin + end, begin-2 + end, ... Returns 0 or an errno value.
int create_numbered(const std::string &begin, const std::string &end, const image_t &image, std::string &path) {
  for (int number = 1;; ++number) {
    path = begin + (number == 1 ? "" : "-" + std::to_string(number)) + end;
    const int error = create_file(path, image);
    if (error != EEXIST) return error;
  }
}

// Whether this is the name of a backup: the prefix, "-DATE-TIME", a number perhaps, and the end.
bool is_backup_name(std::string_view name, std::string_view prefix) {
  constexpr size_t stamp_length = 16;
  if (!name.starts_with(prefix) || !name.ends_with(backup_end)) return false;
  name.remove_prefix(prefix.size());
  name.remove_suffix(backup_end.size());
  return name.size() >= stamp_length && name.starts_with('-') && name[9] == '-' &&
         name.find_first_not_of("-0123456789") == std::string_view::npos;
}

// The user's own plain files only: others may put anything into that directory.
bool is_own_file(const fs::path &path) {
  struct stat there;
  return lstat(path.c_str(), &there) == 0 && S_ISREG(there.st_mode) && there.st_uid == geteuid();
}

// Removes the oldest of a SPROM's backups, by the times in their names, but never the one just made.
void forget_old_backups(const std::string &prefix, const fs::path &made) {
  std::vector<fs::path> old;
  std::error_code error;
  for (fs::directory_iterator at(default_directory(), error), end; !error && at != end; at.increment(error)) {
    const fs::path &path = at->path();
    if (path != made && is_backup_name(path.filename().string(), prefix) && is_own_file(path)) old.push_back(path);
  }
  std::ranges::sort(old, std::ranges::greater{});
  for (size_t i = backups_kept - 1; i < old.size(); ++i)
    (void)unlink(old[i].c_str());
}

bool is_same_file(const struct stat &file, const std::string *path) {
  struct stat other;
  if (path == nullptr) return false;
  const int result = *path == standard_stream ? fstat(STDIN_FILENO, &other) : stat(path->c_str(), &other);
  return result == 0 && file.st_dev == other.st_dev && file.st_ino == other.st_ino;
}

}  // namespace

exit_code check_backup(const options_t &options, const target_t &target, const std::string *source) {
  struct stat there;
  if (!options.backup || lstat(options.backup->c_str(), &there) != 0) return EXIT_OK;
  const char *defect = "exists already; --force numbers the backup";
  const std::string *target_file = target.entry ? nullptr : &target.path;
  if (!S_ISREG(there.st_mode)) {
    defect = "is no plain file, as a backup has to be";
  } else if (options.has(OPT_FORCE)) {
    return EXIT_OK;
  } else if (is_same_file(there, target_file)) {
    defect = "is the file to write, and no backup of it; --force numbers the backup";
  } else if (is_same_file(there, source)) {
    defect = "is the file with the new image, and no backup; --force numbers the backup";
  }
  complain("%s: not written: %s %s", target.label().c_str(), shown(*options.backup).c_str(), defect);
  return EXIT_FAILED;
}

exit_code keep_backup(const options_t &options, const target_t &target, const image_t &image, std::string &path) {
  path.clear();
  if (options.no_backup || (!options.backup && !target.entry)) return EXIT_OK;
  int error = 0;
  if (options.backup && !options.has(OPT_FORCE)) {
    path = *options.backup;
    error = create_file(path, image);
  } else if (options.backup) {
    error = create_numbered(*options.backup, "", image, path);
  } else {
    error = create_numbered(default_name(target), std::string(backup_end), image, path);
    if (error == 0) forget_old_backups(default_prefix(target), path);
  }
  if (error == 0) return EXIT_OK;
  complain("%s: not written: no backup of the old image: %s: %s; --backup names another file", target.label().c_str(),
           shown(path).c_str(), error_text(error).c_str());
  path.clear();
  return EXIT_FAILED;
}

void tell_backup(const target_t &target, const std::string &path) {
  if (path.empty()) return;
  say("%s: the old image is in %s", target.name().c_str(), shown(path).c_str());
  repeat_backup(target, path);
}

void repeat_backup(const target_t &target, const std::string &path) {
  if (path.empty()) return;
  if (fflush(stdout) != 0 || ferror(stdout) != 0)
    complain("%s: the old image is in %s", target.label().c_str(), shown(path).c_str());
}

}  // namespace tool
