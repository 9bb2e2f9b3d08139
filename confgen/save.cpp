// Edits of the stored parameter text: save or remove a section, or one
// line of the "proxy" section. Each call reads the whole text, builds the
// new text in a second buffer, and writes the whole text back. No lock:
// read, edit and write are separate steps, so callers must not overlap.
// Nothing here regenerates files; the caller runs parser_generate.
#include <string.h>

#include "confgen/confgen.h"
#include "logging/logging.h"
#include "store/store.h"

#define SECTION_FORMAT "%s={\n%s\n}\n"
#define PROXY_HEADER_SIZE 8  // "proxy={" and its newline
#define SECTION_HEADER_TAIL 3  // "={" and the newline behind a key

// A text being built, bounded by STORED_TEXT_SIZE with room for the
// terminator behind it.
struct TextBuilder {
  char text[STORED_TEXT_SIZE + 1];
  size_t used;
  int overflow;
};

static void put(TextBuilder *b, const char *data, size_t len) {
  if (b->overflow || b->used + len > STORED_TEXT_SIZE) {
    b->overflow = 1;
    return;
  }
  memcpy(b->text + b->used, data, len);
  b->used += len;
}

static void put_str(TextBuilder *b, const char *text) { put(b, text, strlen(text)); }

// The '}' that ends the section at key, and what follows it less the one
// character taken for its newline (none when the text ends at the '}').
static const char *behind_section(const char *key_pos) {
  const char *close = strchr(key_pos, '}');
  if (close == NULL) return NULL;
  close++;
  return *close != '\0' ? close + 1 : close;
}

// The length the read reported, kept within the buffer and cut at a NUL
// so that the text is handled as the string it is searched as.
static size_t stored_length(const char *text, int length) {
  if (length < 0) length = 0;
  if (length > STORED_TEXT_SIZE) length = STORED_TEXT_SIZE;
  return strnlen(text, (size_t)length);
}

// A line is named by the characters before its first space; it matches
// other, which must hold the same name followed by the character stop. A line
// that starts with a space or has none has no name and never matches.
static int line_named(const char *line, size_t name_len, const char *other, char stop) {
  return name_len > 0 && strncmp(line, other, name_len) == 0 && other[name_len] == stop;
}

// Walks the proxy lines from start, a line's name being what stands before
// its first space. Stops at the newline of the first line whose name equals
// other's up to the byte stop, at a '}', or at the end of the text; *line
// gets the start of the line the walk stopped in.
static const char *walk_proxy_lines(const char *start, const char *other, char stop,
                                    const char **line) {
  *line = start;
  size_t name_len = 0;
  int named = 0;
  const char *p = start;
  for (; *p != '\0' && *p != '}'; p++) {
    if (*p == '\n') {
      if (line_named(*line, name_len, other, stop)) return p;
      *line = p + 1;
      name_len = 0;
      named = 0;
    } else if (*p == ' ' && !named) {
      named = 1;
      name_len = (size_t)(p - *line);
    }
  }
  return p;
}

// An ordinary section: replaced where the key stands, or added at the end.
// Without a '}' behind the key, whatever stood behind it is lost.
static void build_section(TextBuilder *b, const char *old_text, size_t old_len, const char *key,
                          const char *section) {
  const char *hit = strstr(old_text, key);
  if (hit == NULL) {
    put(b, old_text, old_len);
    put_str(b, section);
    return;
  }
  put(b, old_text, (size_t)(hit - old_text));
  put_str(b, section);
  const char *rest = behind_section(hit);
  if (rest != NULL) put_str(b, rest);
}

// The proxy section: the line with the name of text is replaced in place,
// a new name goes in front of the '}'. 0, or -1 when the section has no
// end and text was not added (the lines before are written all the same).
static int build_proxy(TextBuilder *b, const char *old_text, size_t old_len, const char *text,
                       const char *section) {
  const char *hit = strstr(old_text, para_keys[4]);
  if (hit == NULL) {
    put(b, old_text, old_len);
    put_str(b, section);
    return 0;
  }
  size_t header_end = (size_t)(hit - old_text) + PROXY_HEADER_SIZE;
  if (header_end >= old_len) {
    put(b, old_text, old_len);
    return -1;
  }
  put(b, old_text, header_end);

  const char *line = NULL;
  const char *p = walk_proxy_lines(old_text + header_end, text, ' ', &line);
  put(b, old_text + header_end, (size_t)(line - (old_text + header_end)));
  if (*p == '\0') return -1;
  put_str(b, text);
  // A name that matched keeps its place; a new one goes last, in front of
  // the '}'. A '}' inside a line ends the walk there, and that line's start
  // gives way to text.
  if (*p == '}') put(b, "\n", 1);
  put_str(b, p);
  return 0;
}

int parser_save(int id, const char *text) {
  char old_text[STORED_TEXT_SIZE + 1];
  memset(old_text, 0, sizeof old_text);
  TextBuilder b;
  memset(&b, 0, sizeof b);
  char section[SECTION_SIZE];
  memset(section, 0, sizeof section);

  // The read comes first: an unknown id is reported only for a store that
  // reads.
  int length = STORED_TEXT_SIZE;
  if (sec_read_conf(old_text, &length) != 0) return -1;
  const char *key = parser_key(id);
  if (key == NULL) {
    DLOG_ERROR("parser not support save: %d.\n", id);
    return -1;
  }
  if (text == NULL) {
    DLOG_ERROR("no value given for %s, not saved.", key);
    return -1;
  }

  // Sizes are checked before anything is written: the section with its
  // key and frame, the whole new text, and the value as a read gets it,
  // so that nothing is stored that generation would only see cut.
  int n = snprintf(section, sizeof section, SECTION_FORMAT, key, text);
  if (n < 0 || (size_t)n >= sizeof section) {
    DLOG_ERROR("parameter too long: %s takes %d bytes with its frame, %d fit.", key, n,
               SECTION_SIZE - 1);
    return -1;
  }
  size_t old_len = stored_length(old_text, length);
  old_text[old_len] = '\0';
  int complete = 0;
  if (id == PARSER_PROXY) {
    complete = build_proxy(&b, old_text, old_len, text, section);
  } else {
    build_section(&b, old_text, old_len, key, section);
  }
  if (b.overflow) {
    DLOG_ERROR("stored parameters would exceed %d bytes, %s not saved.", STORED_TEXT_SIZE, key);
    return -1;
  }
  int value_len = 0;
  if (find_value(b.text, key, &value_len) != NULL && value_len > value_limit(key)) {
    DLOG_ERROR("value of %s would have %d characters, over %d: not saved.", key, value_len,
               value_limit(key));
    return -1;
  }
  if (complete != 0) DLOG_ERROR("the %s section has no end, the line was not added.", key);

  sec_write_conf(b.text, (int)b.used);  // its failure shows in the store's own log
  return 0;
}

int parser_delete(int id, const char *name) {
  const char *key = parser_key(id);
  if (key == NULL) {
    DLOG_ERROR("parser not support delete: %d.\n", id);
    return -1;
  }
  // The two key sections can be saved and never deleted.
  if (id == PARSER_FIXED_KEY || id == PARSER_CLUSTER_KEY) return -1;

  char old_text[STORED_TEXT_SIZE + 1];
  memset(old_text, 0, sizeof old_text);
  TextBuilder b;
  memset(&b, 0, sizeof b);
  int length = STORED_TEXT_SIZE;
  if (sec_read_conf(old_text, &length) != 0) return -1;
  old_text[stored_length(old_text, length)] = '\0';

  const char *hit = strstr(old_text, key);
  if (hit == NULL) {
    DLOG_ERROR("The para: %s is not exist.\n", key);
    return -1;
  }

  if (id == PARSER_PROXY && name != NULL) {
    // One line: name must be the line's whole name, with nothing behind it.
    const char *p = hit + strlen(key);
    for (int i = 0; i < SECTION_HEADER_TAIL && *p != '\0'; i++) p++;
    const char *line = NULL;
    p = walk_proxy_lines(p, name, '\0', &line);
    if (*p != '\n') return -1;
    put(&b, old_text, (size_t)(line - old_text));
    put_str(&b, p + 1);
    sec_write_conf(b.text, (int)b.used);
    return 0;
  }

  // The whole section, up to its '}' and the newline behind it.
  const char *rest = behind_section(hit);
  if (rest == NULL) return -1;
  put(&b, old_text, (size_t)(hit - old_text));
  put_str(&b, rest);
  sec_write_conf(b.text, (int)b.used);
  return 0;
}
