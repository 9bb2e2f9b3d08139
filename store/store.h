// Protected store: the stored parameter text, kept enciphered and
// authenticated on persistent storage.
#pragma once

#include <stddef.h>

#define STORE_PATH "/media/nand/mox_data/mox_conf.dat"
#define STORE_PARENT_DIR "/media/nand"
#define STORE_DIR STORE_PARENT_DIR "/mox_data"
#define STORE_TMP_PATH STORE_DIR "/mox_conf.dat.tmp"   // next store, until renamed
#define STORE_TEXT_MAX 18432   // largest text the store keeps

// File layout sizes (the layout itself is described in store.cpp).
#define STORE_MAGIC "MOXS"
#define STORE_MAGIC_SIZE 4
#define STORE_VERSION 1
#define STORE_NONCE_OFFSET 5   // after the magic and the version byte
#define STORE_NONCE_SIZE 12    // AES-GCM nonce
#define STORE_HEADER_SIZE 21   // magic, version, nonce, 32-bit text length
#define STORE_TAG_SIZE 16      // AES-GCM tag
#define STORE_KEY_SIZE 32      // AES-256 key
#define STORE_CHUNK_SIZE 4096  // the file is enciphered and read in pieces of this size

// Reads the stored text into buf; *length holds buf's size on entry and the
// text's length on return (buf is NUL-terminated when there is room).
// 0 on success; a missing store reads as an empty text. -1 when the file is
// truncated, tampered with or foreign, or the text is longer than buf
// (logged; *length untouched, buf holds no part of the text).
int sec_read_conf(char *buf, int *length);

// Why the last read (by sec_read_conf or sec_write_conf) found the store
// unreadable, as the log says it; "" when that read went through.
const char *sec_conf_problem(void);

// STORE_DIR and its parent, made when missing with modes that no umask
// can open to others: the store's folder (and the device key in it) is
// root's alone. 0, or -1 with errno set.
int make_store_dir(void);

// Replaces the stored text atomically: a power cut leaves the old or the
// new text. 0 on success; -1 for a text over STORE_TEXT_MAX bytes, a store
// that exists but does not read (it is never overwritten), or an I/O failure.
int sec_write_conf(const char *text, int length);

// ---- release package ----------------------------------------------------------

// The release folder (templates and policies) as one signed, enciphered
// package that travels at the end of mox_conf's image, followed by its
// length; the layout is described in package.cpp. Results: 0 done, -1
// refused or failed with the reason in why (why_size bytes, cut to fit);
// nothing is printed.

#define RELEASE_MAGIC "MOXP"
#define RELEASE_MAGIC_SIZE 4
#define RELEASE_VERSION 1
#define RELEASE_NONCE_OFFSET 5          // after the magic and the version byte
#define RELEASE_NONCE_SIZE 12           // AES-GCM nonce
#define RELEASE_HEADER_SIZE 17          // magic, version, nonce
#define RELEASE_SIG_SIZE 64             // Ed25519 signature
#define RELEASE_TAG_SIZE 16             // AES-GCM tag
#define RELEASE_TRAILER_SIZE 4          // the package's length after it, big-endian
#define RELEASE_PACKAGE_MAX (1 << 20)   // largest package, header and tag included
#define RELEASE_ARCHIVE_MAX (4 << 20)   // largest archive once inflated
#define RELEASE_ENTRY_MAX 1024          // most entries in an archive
#define RELEASE_PATH_MAX 255            // longest entry path, in bytes
#define RELEASE_WHY_SIZE 512            // a reason naming a target path and an entry path

// What a package holds.
struct ReleaseCount {
  int files;
  int folders;
  size_t bytes;   // of all files together
};

// HKDF-SHA256 of the compiled-in token with salt and info into key
// (STORE_KEY_SIZE bytes); each use names its own info. 0, or -1 (key wiped).
int store_token_key(const char *salt, const char *info, unsigned char *key);

// Bytes on the heap. A zeroed one is empty; the calls below that fill one
// replace what it held, and release_bytes_free gives the memory back.
struct ReleaseBytes {
  unsigned char *data;
  size_t len;
  size_t room;   // bytes allocated
};

// Frees bytes and leaves it empty; a null or empty one is fine.
void release_bytes_free(ReleaseBytes *bytes);

// The package appended to the image at image_path, into pkg: the last
// RELEASE_TRAILER_SIZE bytes give its length. -1 when the file does not
// read, the trailer is missing or out of range, or no package header sits
// where it points ("no release package appended to ..."); pkg is then empty.
int release_package_of_image(const char *image_path, ReleaseBytes *pkg, char *why,
                             size_t why_size);

// The package file at path, whole, into pkg; -1 for anything but a regular
// file of 1 to RELEASE_PACKAGE_MAX bytes, or a read failure.
int release_package_of_file(const char *path, ReleaseBytes *pkg, char *why, size_t why_size);

// Checks the package (pkg_len bytes at pkg) through and through: header,
// cipher tag, signature against the compiled-in verify key, bounded
// inflate, and every archive entry. 0 with the archive in archive and,
// with count, what it holds; -1 otherwise (archive then empty).
int release_verify(const unsigned char *pkg, size_t pkg_len, ReleaseBytes *archive,
                   ReleaseCount *count, char *why, size_t why_size);

// Verifies the package and replaces the folder target with its contents:
// files 0644, folders 0755. Each keep path (relative, NULL-terminated list;
// may be NULL) that exists as a regular file in the old target and that
// the package does not bring is carried over, when its folder is in the
// package. 0 when the new folder is in place; -1 leaves target as it was.
int release_install(const unsigned char *pkg, size_t pkg_len, const char *target,
                    const char *const *keep, ReleaseCount *count, char *why, size_t why_size);

// Seals the archive (as release_verify gives it back) into pkg: compressed,
// signed with the Ed25519 private key in the PEM file, enciphered. The
// entries are not checked. Same inputs, same bytes. -1 when the key does
// not load or the package would exceed RELEASE_PACKAGE_MAX.
int release_seal(const unsigned char *archive, size_t archive_len,
                 const char *signing_key_pem_path, ReleaseBytes *pkg, char *why,
                 size_t why_size);

// Packs the folder dir (regular files and folders only, nothing else) into
// pkg with release_seal, then checks pkg with release_verify. -1 also when
// the signing key does not match the compiled-in verify key.
int release_pack_dir(const char *dir, const char *signing_key_pem_path, ReleaseBytes *pkg,
                     char *why, size_t why_size);
