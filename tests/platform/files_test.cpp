#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <string>

#include "platform/platform.h"
#include "temp_dir.h"

using FilesTest = TempDirTest;

static int open_descriptors() {
  int count = 0;
  DIR *dir = opendir("/proc/self/fd");
  while (readdir(dir) != nullptr) count++;
  closedir(dir);
  return count;
}

TEST_F(FilesTest, MakeDirsAndRemoveTree) {
  std::string deep = path("a/b/c");
  EXPECT_EQ(make_dirs(deep.c_str()), 0);
  EXPECT_EQ(make_dirs((deep + "/").c_str()), 0);
  EXPECT_EQ(path_kind(deep.c_str()), 0);
  EXPECT_EQ(file_exists(deep.c_str()), 1);
  EXPECT_EQ(make_dirs("/"), 0);
  std::string file = deep + "/f";
  ASSERT_EQ(write_file(file.c_str(), "x", 1), 0);
  EXPECT_EQ(path_kind(file.c_str()), 1);
  EXPECT_EQ(path_kind(path("none").c_str()), -1);
  EXPECT_EQ(remove_tree(file.c_str()), -1);
  EXPECT_EQ(remove_tree(path("a").c_str()), 0);
  EXPECT_EQ(file_exists(path("a").c_str()), 0);
}

TEST_F(FilesTest, LengthLimits) {
  // The longest accepted path leaves room for the added "/" and the NUL.
  std::string base = path("");
  std::string fits = base + std::string(MAKE_DIRS_PATH_SIZE - 2 - base.size(), 'd');
  EXPECT_EQ(make_dirs(fits.c_str()), 0);
  EXPECT_EQ(dir_exists(fits.c_str()), 1);
  EXPECT_EQ(make_dirs((fits + "e").c_str()), -1);
  EXPECT_EQ(dir_exists((fits + "e").c_str()), 0);
  // An entry whose "dir/name" does not fit stops the removal, stream closed.
  std::string tree = path("t");
  std::string entry = tree + "/" + std::string(TREE_PATH_SIZE - tree.size(), 'n');
  ASSERT_EQ(make_dirs(tree.c_str()), 0);
  ASSERT_EQ(mkdir(entry.c_str(), 0755), 0);
  int before = open_descriptors();
  EXPECT_EQ(remove_tree(tree.c_str()), -1);
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_EQ(dir_exists(entry.c_str()), 1);
}

TEST_F(FilesTest, ReadWriteAppend) {
  std::string file = path("f");
  mode_t saved = umask(022);
  EXPECT_EQ(write_file(file.c_str(), "first content", 13), 0);
  EXPECT_EQ(write_file(file.c_str(), "new", 3), 0);
  umask(saved);
  struct stat st;
  ASSERT_EQ(stat(file.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0644u);
  char buf[64] = {0};
  ssize_t size = sizeof buf;
  EXPECT_EQ(read_file_into(file.c_str(), buf, &size), 0);
  EXPECT_EQ(std::string(buf, size), "new");

  std::string missing = path("missing");
  EXPECT_EQ(read_file(missing.c_str(), buf, sizeof buf), -1);
  EXPECT_EQ(read_file_into(missing.c_str(), buf, &size), 1);
  EXPECT_EQ(size, 3);
  EXPECT_EQ(get_file_size(missing.c_str()), -1);
  EXPECT_EQ(write_file(path("no/dir").c_str(), "x", 1), 1);
}

TEST_F(FilesTest, Digests) {
  unsigned char digest[SHA256_SIZE];
  EXPECT_EQ(sha256_digest(reinterpret_cast<const unsigned char *>("abc"), 3, digest), 0);
  static const unsigned char abc[SHA256_SIZE] = {
      0xba, 0x78, 0x16, 0xbf, 0x8f, 0x01, 0xcf, 0xea, 0x41, 0x41, 0x40, 0xde, 0x5d, 0xae, 0x22, 0x23,
      0xb0, 0x03, 0x61, 0xa3, 0x96, 0x17, 0x7a, 0x9c, 0xb4, 0x10, 0xff, 0x61, 0xf2, 0x00, 0x15, 0xad};
  EXPECT_EQ(memcmp(digest, abc, SHA256_SIZE), 0);

  std::string file = path("payload");
  ASSERT_EQ(write_file(file.c_str(), "abc", 3), 0);
  EXPECT_EQ(file_md5_matches(file.c_str(), "900150983cd24fb0d6963f7d28e17f72"), 0);
  EXPECT_EQ(file_md5_matches(path("missing").c_str(), "900150983cd24fb0d6963f7d28e17f72"), 1);
}
