// mox_pack, a build-host tool: packs the release folder into a signed,
// enciphered release package, and appends a package to mox_conf's program
// to make the image that ships. Both outputs are checked with the device's
// own code before they are written, so a package the devices would refuse
// fails the build instead.
//
// Outputs replace their files as a whole, so an interrupted build never
// leaves half a file under the final name.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/platform.h"
#include "store/store.h"

#define EXIT_FAILED 1
#define EXIT_USAGE 2

static const char usage_text[] =
    "usage: mox_pack pack DIR SIGNING_KEY OUT\n"
    "       mox_pack image BARE PACKAGE OUT\n"
    "\n"
    "  pack   packs the regular files and folders in DIR into the release\n"
    "         package OUT, signed with the Ed25519 private key in SIGNING_KEY,\n"
    "         which must match the verify key compiled into mox_conf\n"
    "  image  writes OUT: the program BARE, then PACKAGE, then PACKAGE's\n"
    "         length as 32 bits big-endian (mode 0755)\n";

static int failed(const char *what) {
  fprintf(stderr, "mox_pack: %s\n", what);
  return EXIT_FAILED;
}

// Writes len bytes to out with mode, as a whole (replace_file). 0, or -1
// (printed).
static int write_out(const char *out, const unsigned char *data, size_t len, mode_t mode) {
  if (replace_file(out, reinterpret_cast<const char *>(data), len, mode) != 0) {
    fprintf(stderr, "mox_pack: cannot write %s: %s\n", out, strerror(errno));
    return -1;
  }
  return 0;
}

static int pack(const char *dir, const char *key, const char *out) {
  char why[RELEASE_WHY_SIZE] = {0};
  ReleaseBytes pkg = {nullptr, 0, 0};
  int rc = release_pack_dir(dir, key, &pkg, why, sizeof why) != 0 ? failed(why)
           : write_out(out, pkg.data, pkg.len, 0644) != 0         ? EXIT_FAILED
                                                                   : 0;
  release_bytes_free(&pkg);
  return rc;
}

// The program at bare_path whole into image (size bytes, room for room).
static int read_program(const char *bare_path, unsigned char **image, size_t *size,
                        size_t room) {
  int fd = open(bare_path, O_RDONLY | O_CLOEXEC);
  struct stat st;
  if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) ||
      (*image = static_cast<unsigned char *>(malloc(static_cast<size_t>(st.st_size) + room))) ==
          nullptr) {
    if (fd >= 0) close(fd);
    fprintf(stderr, "mox_pack: cannot read %s\n", bare_path);
    return -1;
  }
  *size = static_cast<size_t>(st.st_size);
  size_t done = 0;
  while (done < *size) {
    ssize_t got = read(fd, *image + done, *size - done);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    done += static_cast<size_t>(got);
  }
  close(fd);
  if (done != *size) {
    failed("cannot read the program whole");
    return -1;
  }
  return 0;
}

// OUT: the program, then the checked package, then the package's length.
static int append_package(const char *bare_path, const ReleaseBytes *pkg, const char *out) {
  unsigned char *image = nullptr;
  size_t size = 0;
  if (read_program(bare_path, &image, &size, pkg->len + RELEASE_TRAILER_SIZE) != 0) {
    free(image);
    return EXIT_FAILED;
  }
  memcpy(image + size, pkg->data, pkg->len);
  size += pkg->len;
  uint32_t len = static_cast<uint32_t>(pkg->len);
  for (int shift = 24; shift >= 0; shift -= 8) image[size++] = static_cast<unsigned char>(len >> shift);
  int rc = write_out(out, image, size, 0755) == 0 ? 0 : EXIT_FAILED;
  free(image);
  return rc;
}

static int image_with(const char *bare_path, const char *pkg_path, const char *out,
                      ReleaseBytes *pkg, ReleaseBytes *scratch) {
  char why[RELEASE_WHY_SIZE] = {0};
  if (release_package_of_file(pkg_path, pkg, why, sizeof why) != 0) return failed(why);
  ReleaseCount count = {0, 0, 0};
  if (release_verify(pkg->data, pkg->len, scratch, &count, why, sizeof why) != 0)
    return failed(why);
  // A program that already carries a package would hide the old one under
  // the new: a sign that the stripped program was not what came in.
  if (release_package_of_image(bare_path, scratch, why, sizeof why) == 0)
    return failed("the program already carries a release package");
  if (append_package(bare_path, pkg, out) != 0) return EXIT_FAILED;
  printf("mox_pack: %s carries %d files, %zu bytes\n", out, count.files, count.bytes);
  return 0;
}

static int image(const char *bare_path, const char *pkg_path, const char *out) {
  ReleaseBytes pkg = {nullptr, 0, 0}, scratch = {nullptr, 0, 0};
  int rc = image_with(bare_path, pkg_path, out, &pkg, &scratch);
  release_bytes_free(&pkg);
  release_bytes_free(&scratch);
  return rc;
}

int main(int argc, char **argv) {
  if (argc == 5 && strcmp(argv[1], "pack") == 0) return pack(argv[2], argv[3], argv[4]);
  if (argc == 5 && strcmp(argv[1], "image") == 0) return image(argv[2], argv[3], argv[4]);
  fputs(usage_text, stderr);
  return EXIT_USAGE;
}
