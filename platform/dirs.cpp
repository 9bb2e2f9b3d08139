// Directories: existence, kind, creation of a whole path and removal of a
// whole tree.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "platform/platform.h"

#define DIR_TYPE_BIT 0x4000  // S_IFDIR; block devices and sockets carry it too

int dir_exists(const char *path) {
  if (path == nullptr) return 0;
  DIR *dir = opendir(path);
  if (dir == nullptr) return 0;
  closedir(dir);
  return 1;
}

// Only the one bit is tested, so block devices and sockets count as
// directories here; callers wanting the exact type must test it themselves.
int path_kind(const char *path) {
  struct stat st;
  if (path == nullptr || stat(path, &st) != 0) return -1;
  return (st.st_mode & DIR_TYPE_BIT) ? 0 : 1;
}

int make_dirs(const char *path) {
  if (path == nullptr) return -1;
  char dirs[MAKE_DIRS_PATH_SIZE] = {0};
  size_t len = strlen(path);
  int needs_slash = len == 0 || path[len - 1] != '/';
  // Room for the path, the "/" that may be added and the NUL.
  if (len + static_cast<size_t>(needs_slash) + 1 > sizeof dirs) return -1;
  memcpy(dirs, path, len);
  // The closing "/" makes the last component a directory as well.
  if (needs_slash) dirs[len++] = '/';
  if (len <= 1) return 0;
  // Index 0 is skipped so that a leading "/" makes no empty name; a prefix
  // that exists counts as good, whatever it is.
  for (size_t i = 1; i < len; i++) {
    if (dirs[i] != '/') continue;
    dirs[i] = '\0';
    if (access(dirs, F_OK) != 0 && mkdir(dirs, 0777) != 0) {
      perror("mkdir error");
      return -1;
    }
    dirs[i] = '/';
  }
  return 0;
}

int remove_tree(const char *path) {
  if (path == nullptr) return -1;
  DIR *dir = opendir(path);
  if (dir == nullptr) return -1;
  struct dirent *entry;
  while ((entry = readdir(dir)) != nullptr) {
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    char entry_path[TREE_PATH_SIZE] = {0};
    // A cut name would name something else; refuse rather than guess.
    int len = snprintf(entry_path, sizeof entry_path, "%s/%s", path, entry->d_name);
    int rc = -1;
    if (len >= 0 && static_cast<size_t>(len) < sizeof entry_path) {
      int kind = path_kind(entry_path);
      if (kind < 0) continue;  // vanished meanwhile
      rc = kind == 0 ? remove_tree(entry_path) : remove(entry_path);
    }
    if (rc != 0) {
      closedir(dir);
      return -1;
    }
  }
  closedir(dir);
  return remove(path) == 0 ? 0 : -1;
}
