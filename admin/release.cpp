// "release verify" and "release install": the release package this program
// carries at the end of its image (or a package file named on the command
// line) is checked, and unpacked into the release folder.
//
// Decisions kept here:
// - The image is read through /proc/self/exe, so the package is the one of
//   the very program that runs, wherever it was installed or copied to.
// - Installing keeps the generated files of the old folder that the new
//   release does not bring: a running proxy must find a working
//   configuration until the next "mox_conf generate" rewrites them.
#include <stdio.h>

#include "admin/admin.h"
#include "confgen/confgen.h"
#include "logging/logging.h"
#include "store/store.h"

#define SELF_IMAGE_PATH "/proc/self/exe"

// True when path lies below RELEASE_DIR; the kept files are named relative to it.
static constexpr bool below_release_dir(const char *path) {
  for (size_t i = 0; i < sizeof RELEASE_DIR - 1; i++)
    if (path[i] != RELEASE_DIR[i]) return false;
  return path[sizeof RELEASE_DIR - 1] == '/';
}
static_assert(below_release_dir(NGINX_CONF_PATH) && below_release_dir(WEBSITES_CONF_PATH) &&
                  below_release_dir(QSP_CONF_PATH),
              "the generated files lie in the release folder");

static const char *const generated_files[] = {
    &NGINX_CONF_PATH[sizeof RELEASE_DIR],
    &WEBSITES_CONF_PATH[sizeof RELEASE_DIR],
    &QSP_CONF_PATH[sizeof RELEASE_DIR],
    nullptr,
};

// The package of this program's image (file null) or of the package file.
static int load_package(const char *file, ReleaseBytes *pkg, char *why, size_t why_size) {
  if (file == nullptr) return release_package_of_image(SELF_IMAGE_PATH, pkg, why, why_size);
  return release_package_of_file(file, pkg, why, why_size);
}

int cmd_release_verify(const char *file) {
  char why[RELEASE_WHY_SIZE] = {0};
  ReleaseBytes pkg = {nullptr, 0, 0}, archive = {nullptr, 0, 0};
  ReleaseCount count = {0, 0, 0};
  int rc = load_package(file, &pkg, why, sizeof why) != 0 ||
           release_verify(pkg.data, pkg.len, &archive, &count, why, sizeof why) != 0;
  release_bytes_free(&pkg);
  release_bytes_free(&archive);
  if (rc != 0) return failure(EXIT_REFUSED, "%s", why);
  if (printf("release package verified: %d files, %zu bytes\n", count.files, count.bytes) < 0 ||
      fflush(stdout) != 0)
    return EXIT_REFUSED;
  return 0;
}

int cmd_release_install(const char *file) {
  char why[RELEASE_WHY_SIZE] = {0};
  ReleaseBytes pkg = {nullptr, 0, 0};
  ReleaseCount count = {0, 0, 0};
  int rc = load_package(file, &pkg, why, sizeof why) != 0 ||
           release_install(pkg.data, pkg.len, RELEASE_DIR, generated_files, &count, why,
                           sizeof why) != 0;
  release_bytes_free(&pkg);
  if (rc != 0) {
    DLOG_ERROR("release not installed: %s", why);
    return failure(EXIT_REFUSED, "%s", why);
  }
  DLOG_INFO("release installed in %s: %d files, %zu bytes", RELEASE_DIR, count.files,
            count.bytes);
  if (printf("release installed in %s: %d files\n", RELEASE_DIR, count.files) < 0 ||
      fflush(stdout) != 0)
    return EXIT_REFUSED;
  return 0;
}
