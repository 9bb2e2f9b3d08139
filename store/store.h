// Protected store: the stored parameter text, kept enciphered and
// authenticated on persistent storage.
#pragma once

#include <stddef.h>

#define STORE_PATH "/media/nand/mox_data/mox_conf.dat"
#define STORE_DIR "/media/nand/mox_data"
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

// Replaces the stored text atomically: a power cut leaves the old or the
// new text. 0 on success; -1 for a text over STORE_TEXT_MAX bytes, a store
// that exists but does not read (it is never overwritten), or an I/O failure.
int sec_write_conf(const char *text, int length);

// ---- test seam ----------------------------------------------------------------

// Makes every later sec_write_conf stop, as if the process were killed,
// after step 1 (temporary file written), 2 (temporary file synced) or
// 3 (renamed over the store); that write returns -1. 0 turns it off.
void store_fail_after_step(int step);
