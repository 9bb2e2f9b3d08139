// Diagnostic log: one process-wide sink, three levelled macros, and the trim
// that keeps the file near 32 KiB. Lines read
// "<local time>  <LABEL>  (<function>:<line>)  <message>".
#pragma once

#include <stdint.h>
#include <stdio.h>

#define LOG_PATH "/tmp/mox/log/logd.log"
#define RZPZ_PATH "/media/nand/mox_data/rzpz"
#define LOG_TIME_SIZE 32
#define LOG_TRIM_THRESHOLD 32768   // a file this large is cut at the next line
#define LOG_TRIM_KEEP 13107        // tail kept of a file found far too large
#define LOG_COPY_BLOCK 4096
#define LOG_DIR_PATH_MAX 1024      // longest log path whose folders are made

#define LOG_MASK_FILE 1u
#define LOG_MASK_STDOUT 2u

// The one sink. Static storage: before log_init mask is 0 and nothing prints.
struct LogSinkRecord {
  FILE *file;
  char *path;
  int32_t level;
  uint32_t mask;
};

extern LogSinkRecord LogSink;

// Writes one line to the places mask names, then trims. Called by the
// macros only, after their level test.
void log_write(const char *label, const char *func, int line, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));

// Current local time as "%Y-%m-%d %H:%M:%S" into buf.
void log_timestamp(char *buf, size_t size);

// Keeps the file small: at or above LOG_TRIM_THRESHOLD bytes it is rewritten
// from the first whole line after 2/5 of its size (or its last
// LOG_TRIM_KEEP bytes when that tail would exceed the threshold).
void log_trim(LogSinkRecord *sink);

// The log's stream on path, opened as fopen "a+" opens it but never
// waiting: a FIFO whose reader stalls makes lines fail (they are counted
// and the count logged once the file takes lines again), never the caller
// block. NULL when the open fails.
FILE *log_stream_open(const char *path);

// Closes the stream and frees the path; level and mask stay. Repeatable.
void log_close(void);

// Opens path for appending (creating its folders with mode 0766), cuts it
// if too large, and takes the level from the settings file key name
// (4, errors only, when absent). Does nothing if a stream is open.
// Ends the process with exit(1) when the file cannot be opened.
void log_open(const char *path, const char *name, uint32_t mask);

// log_close then log_open: reopens and rereads the level.
void log_init(const char *path, const char *name, uint32_t mask);

// The level a settings value gives: 0..3 as is, everything else 4.
int32_t log_level_from_value(int value);

#define DLOG_AT(bound, label, ...)                                   \
  do {                                                               \
    if (LogSink.level < (bound)) log_write(label, __func__, __LINE__, __VA_ARGS__); \
  } while (0)

#define DLOG_DEBUG(...) DLOG_AT(2, "DEBUG", __VA_ARGS__)
#define DLOG_INFO(...) DLOG_AT(3, "INFO", __VA_ARGS__)
#define DLOG_ERROR(...) DLOG_AT(5, "ERROR", __VA_ARGS__)
