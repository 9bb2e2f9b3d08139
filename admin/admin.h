// mox_conf, the operator's tool: one file per group of commands, each
// command a function that gives the process's exit status. main parses
// the arguments, takes the tool's lock and dispatches; nothing here runs
// without that lock, so a read, edit and write of the store never overlap.
#pragma once

#include <stddef.h>

#include "confgen/confgen.h"

#define EXIT_REFUSED 1   // refused, or failed: nothing claimed that did not happen
#define EXIT_USAGE 2     // the command line is wrong

#define MOX_CONF_LOG_PATH "/tmp/mox/log/mox_conf.log"
#define VALUE_BUFFER_SIZE (STORED_TEXT_SIZE + 1)  // parser_get takes no size: room for all
#define ADMIN_PORT 8088   // the proxy's own listener (health check), on every address

// Prints "mox_conf: <reason>" on stderr and gives code back.
int failure(int code, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// ---- sections of the stored text (values.cpp) ---------------------------------

struct Section {
  const char *name;
  int id;   // ParserId
};

// The section of that name, or null.
const Section *find_section(const char *name);

// 0 when text is one line of printable ASCII without '{', '}' or a section
// name (the generator finds sections by plain substring); else 1, reported
// with what as the subject.
int check_text(const char *what, const char *text);

// 0 when value may be stored in s: check_text, the size a read returns
// whole, and the form its reader takes; else 1, reported.
int check_value(const Section *s, const char *value);

int cmd_get(const Section *s);
int cmd_set(const Section *s, const char *value);
int cmd_delete(const Section *s);

// ---- the store (stored.cpp) -----------------------------------------------------

// Length of the stored text, or -1 (reported, with the way to recover)
// when the store does not read.
int stored_length(void);

// The section's value into value (VALUE_BUFFER_SIZE, zero-filled here);
// 0 when stored, -1 when not.
int read_value(const Section *s, char *value, int *len);

// 0 when the stored text of old_len, with s's value of old_value_len
// (stored or not) replaced by one of new_value_len, still fits what reads
// it; else 1, reported.
int check_stored_size(const Section *s, int old_len, int stored, size_t old_value_len,
                      size_t new_value_len);

// Reports a change the store did not keep; 1.
int store_did_not_take(void);

// "store check": 0 when the store reads (or does not exist yet), printing
// what it holds; 1 with the reason and the way to recover.
int cmd_store_check(void);

// "store reset": a store that does not read is kept aside as
// STORE_BAD_PATH and an empty one takes its place. 1 when the store reads
// (nothing to reset) or when an earlier STORE_BAD_PATH is in the way.
int cmd_store_reset(void);

#define STORE_BAD_PATH "/media/nand/mox_data/mox_conf.dat.bad"

// ---- websites (websites.cpp) ------------------------------------------------------

// 0 when line is a website line the generator turns into blocks; its name
// (the text before the first space) is copied to name, of name_size bytes.
int check_proxy_line(const char *line, char *name, size_t name_size);

int cmd_proxy_list(void);
int cmd_proxy_add(const char *line, const char *name);
int cmd_proxy_remove(const char *name);

// ---- generation (generation.cpp) ---------------------------------------------------

// "generate nginx|qsp|all": every file asked for is built in full before
// any is written, then each replaces its old copy as a whole. 0 only when
// every file is in place with every website in it.
int cmd_generate(const char *which);

// ---- release package (release.cpp) --------------------------------------------

// "release verify [FILE]" and "release install [FILE]": the package
// appended to this program's image, or the package file FILE (NULL for
// none). verify checks without writing; install unpacks into the release
// folder. Exit status.
int cmd_release_verify(const char *file);
int cmd_release_install(const char *file);

// ---- the daemon's status (status.cpp) ----------------------------------------------

// "status": prints the daemon's status file readably. 0 when the daemon
// runs (its lock is held by the pid the file names); 1 when it does not,
// or when there is no status to read.
int cmd_status(void);
