// Shell commands run for their status and, if asked, their output.
#include <cstdio>
#include <cstdlib>

#include "platform/platform.h"

int exec_cmd(const char *cmd, char *out, size_t size) {
  if (cmd == nullptr) {
    puts("exec_cmd input error!");
    return -1;
  }
  FILE *pipe = popen(cmd, "r");
  if (pipe == nullptr) {
    printf("cmd: %s\t error", cmd);
    return -1;
  }
  // One read: output beyond size is left unread, and the command may see
  // a broken pipe for it.
  if (out != nullptr && size != 0) {
    size_t got = fread(out, 1, size, pipe);
    if (got > 0 && out[got - 1] == '\n') out[got - 1] = '\0';
  }
  return pclose(pipe) == 0 ? 0 : -1;
}

int exec_cmd_without_output(const char *cmd) {
  if (cmd == nullptr) {
    puts("exec_cmd_without_output input error!");
    return -1;
  }
  int status = system(cmd);
  (void)status;  // fire and forget: the command's own status is not reported
  return 0;
}
