// The RELP way out: one librelp engine and one client, kept open between
// sends and owned by the sender's shipper thread alone.
//
// What "delivered" means here: a message counts as taken once librelp has
// written its frame to the socket. librelp keeps every frame until the
// receiver acknowledges it, and after a reconnect resends all frames still
// unacknowledged, so a taken message survives a receiver that dies or a
// session that breaks; the receiver may then see it twice, never zero
// times. A graceful close waits for the outstanding acknowledgements. What
// can still be lost is a frame unacknowledged when a session is given up
// for good (the receiver stays away through the close); that is logged.
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

// librelp's header has no C++ guard of its own.
extern "C" {
#include <librelp.h>
}

#include "logging/logging.h"
#include "shipping/shipping.h"

#define RELP_PORT_TEXT_SIZE sizeof("65535")   // a port as librelp takes it, NUL included
#define RELP_PORT_MAX 65535

enum RelpState {
  RELP_CLOSED,   // no session: the next send connects
  RELP_OPEN,     // session up, frames go out
  RELP_BROKEN,   // session failed: the next send reconnects it first
};

struct RelpLink {
  relpEngine_t *engine;
  relpClt_t *client;       // null until the first connect and after a failed one
  RelpState state;
  ShipTarget target;       // the session's, while state is not RELP_CLOSED
  unsigned lib_errors;     // reports from librelp, so a close can tell it failed
};

// librelp reports the cause (refused, closed by the peer, timed out) here;
// the caller's own line then says what it meant for the messages.
static void on_relp_error(void *usr, char *objinfo, char *errmsg, relpRetVal code) {
  RelpLink *link = (RelpLink *)usr;
  if (link != NULL) link->lib_errors++;
  DLOG_ERROR("relp %s: %s (%d)", objinfo ? objinfo : "-", errmsg ? errmsg : "-", (int)code);
}

// librelp writes with send(..., 0), so a peer that has reset the
// connection raises SIGPIPE. The disposition is the whole process's and
// not ours to change: the signal is blocked on this thread while librelp
// runs, and one that arose meanwhile is taken off before the old mask
// returns.
struct PipeGuard {
  sigset_t old;
  int was_pending;
};

static void pipe_hold(PipeGuard *g) {
  sigset_t pipe_only, pending;
  sigemptyset(&pipe_only);
  sigaddset(&pipe_only, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe_only, &g->old);
  g->was_pending = sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
}

static void pipe_release(const PipeGuard *g) {
  sigset_t pipe_only, pending;
  sigemptyset(&pipe_only);
  sigaddset(&pipe_only, SIGPIPE);
  if (!g->was_pending && sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1) {
    struct timespec now = {0, 0};
    while (sigtimedwait(&pipe_only, NULL, &now) < 0 && errno == EINTR) {
    }
  }
  pthread_sigmask(SIG_SETMASK, &g->old, NULL);
}

// Gives the session up: a graceful close when it is open (librelp waits
// for the outstanding acknowledgements), and for a broken one first one
// reconnect, which resends the unacknowledged frames so the close can
// collect their acknowledgements.
static void close_session(RelpLink *link) {
  if (link->client == NULL) {
    link->state = RELP_CLOSED;
    return;
  }
  const ShipTarget *t = &link->target;
  int lost = 0;
  if (link->state == RELP_BROKEN) {
    relpRetVal r = relpCltReconnect(link->client);
    if (r == RELP_RET_OK) {
      link->state = RELP_OPEN;
    } else {
      DLOG_ERROR("relp connect() error: %s:%d unreachable at close (%d)", t->host, t->port, (int)r);
      lost = 1;
    }
  }
  unsigned errors_before = link->lib_errors;
  relpEngineCltDestruct(link->engine, &link->client);
  link->client = NULL;
  if (link->state == RELP_OPEN && link->lib_errors != errors_before) lost = 1;
  if (lost)
    DLOG_ERROR("relp close error: %s:%d, any messages it had not acknowledged are lost", t->host,
               t->port);
  link->state = RELP_CLOSED;
}

// Opens a session to target on a fresh client. 0, or -1 with no client left:
// librelp destroys the session of a failed connect itself.
static int open_session(RelpLink *link, const ShipTarget *target) {
  char port[RELP_PORT_TEXT_SIZE];
  int n = snprintf(port, sizeof port, "%d", (int)target->port);
  if (n < 0 || (size_t)n >= sizeof port) {
    DLOG_ERROR("relp connect() error: port %d out of range", (int)target->port);
    return -1;
  }
  relpRetVal r = relpEngineCltConstruct(link->engine, &link->client);
  if (r != RELP_RET_OK || link->client == NULL) {
    DLOG_ERROR("relp connect() error: no client (%d)", (int)r);
    link->client = NULL;
    return -1;
  }
  // The user pointer reaches the session only when set before connecting.
  relpCltSetUsrPtr(link->client, link);
  relpCltSetTimeout(link->client, SHIP_RELP_TIMEOUT_SEC);
  relpCltSetConnTimeout(link->client, SHIP_RELP_TIMEOUT_SEC);
  r = relpCltConnect(link->client, 0, (unsigned char *)port, (unsigned char *)target->host);
  if (r != RELP_RET_OK) {
    DLOG_ERROR("relp connect() error: %s:%s (%d)", target->host, port, (int)r);
    relpEngineCltDestruct(link->engine, &link->client);
    link->client = NULL;
    return -1;
  }
  link->target = *target;
  link->state = RELP_OPEN;
  return 0;
}

RelpLink *relp_link_new(void) {
  RelpLink *link = (RelpLink *)calloc(1, sizeof *link);
  if (link == NULL) {
    DLOG_ERROR("relp link: out of memory");
    return NULL;
  }
  relpRetVal r = relpEngineConstruct(&link->engine);
  if (r != RELP_RET_OK || link->engine == NULL) {
    DLOG_ERROR("relp link: no engine (%d)", (int)r);
    free(link);
    return NULL;
  }
  // A null printer silences librelp's debug output; errors come through
  // on_relp_error. A receiver without "syslog" is refused at the open.
  // Name lookups of peers serve only listeners: off.
  relpEngineSetDbgprint(link->engine, NULL);
  relpEngineSetEnableCmd(link->engine, (unsigned char *)"syslog", eRelpCmdState_Required);
  relpEngineSetDnsLookupMode(link->engine, 0);
  relpEngineSetOnErr(link->engine, on_relp_error);
  link->state = RELP_CLOSED;
  return link;
}

int relp_link_send(RelpLink *link, const ShipTarget *target, const char *const *msgs,
                   const size_t *lens, int count) {
  if (link == NULL || target == NULL || msgs == NULL || lens == NULL || count <= 0) return 0;
  if (target->transport != SHIP_TRANSPORT_RELP || target->port < 1 ||
      target->port > RELP_PORT_MAX || memchr(target->host, '\0', sizeof target->host) == NULL ||
      target->host[0] == '\0') {
    DLOG_ERROR("relp connect() error: not a RELP collector");
    return 0;
  }

  PipeGuard guard;
  pipe_hold(&guard);
  if (link->state != RELP_CLOSED && !same_target(&link->target, target)) close_session(link);

  if (link->state == RELP_BROKEN) {
    relpRetVal r = relpCltReconnect(link->client);
    if (r != RELP_RET_OK) {
      DLOG_ERROR("relp connect() error: reconnect to %s:%d (%d)", target->host, target->port,
                 (int)r);
      pipe_release(&guard);
      return 0;
    }
    link->state = RELP_OPEN;
  } else if (link->state == RELP_CLOSED && open_session(link, target) != 0) {
    pipe_release(&guard);
    return 0;
  }

  int taken = 0;
  for (; taken < count; taken++) {
    if (msgs[taken] == NULL) {
      DLOG_ERROR("relp send() error: message %d of %d missing", taken + 1, count);
      break;
    }
    relpRetVal r = relpCltSendSyslog(link->client, (unsigned char *)msgs[taken], lens[taken]);
    if (r != RELP_RET_OK) {
      DLOG_ERROR("relp send() error: %s:%d took %d of %d (%d)", target->host, target->port,
                 taken, count, (int)r);
      link->state = RELP_BROKEN;
      break;
    }
  }
  pipe_release(&guard);
  return taken;
}

void relp_link_free(RelpLink *link) {
  if (link == NULL) return;
  PipeGuard guard;
  pipe_hold(&guard);
  close_session(link);
  relpEngineDestruct(&link->engine);
  pipe_release(&guard);
  free(link);
}
