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
//
// librelp writes with send(..., 0), so a peer that has reset the
// connection raises SIGPIPE: every call into it runs under a PipeGuard.
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

// librelp's header has no C++ guard of its own.
extern "C" {
#include <librelp.h>
}

#include "logging/logging.h"
#include "shipping/shipping.h"

#define RELP_PORT_TEXT_SIZE sizeof("65535")   // a port as librelp takes it, NUL included
#define RELP_PORT_MAX 65535
#define RELP_FD_PATH_SIZE sizeof("/proc/self/fd/-2147483648")
#define RELP_REFUSAL_SIZE 256                 // librelp's reason for refusing a certificate
#define RELP_IDENTITY_DAYS 3650               // the throwaway certificate's validity

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
  unsigned auth_errors;    // receivers whose certificate librelp refused
  char refusal[RELP_REFUSAL_SIZE];  // librelp's first subject since the last connect began
  char verdict[RELP_REFUSAL_SIZE];  // ... and its last verdict
  int cert_fd;             // relp+tls: the throwaway identity (below), -1 until made
  int key_fd;
};

// librelp reports the cause (refused, closed by the peer, timed out) here;
// the caller's own line then says what it meant for the messages.
static void on_relp_error(void *usr, char *objinfo, char *errmsg, relpRetVal code) {
  RelpLink *link = (RelpLink *)usr;
  if (link != NULL) link->lib_errors++;
  DLOG_ERROR("relp %s: %s (%d)", objinfo ? objinfo : "-", errmsg ? errmsg : "-", (int)code);
}

// Copies a librelp text into a log field: control bytes made blanks, and
// blanks and ';' at its end dropped.
static void take_text(char *out, size_t size, const char *text) {
  int n = snprintf(out, size, "%s", text != NULL ? text : "-");
  if (n < 0) snprintf(out, size, "-");
  for (char *p = out; *p; p++)
    if ((unsigned char)*p < ' ') *p = ' ';
  for (size_t len = strlen(out); len > 0 && (out[len - 1] == ' ' || out[len - 1] == ';'); len--)
    out[len - 1] = '\0';
}

// librelp's own TLS refused the receiver's certificate, sometimes in more
// than one report per connect: the first one's subject ("unable to get
// local issuer certificate", "DNSname: other.example") and the last one's
// verdict are kept for the caller's single line.
static void on_relp_auth_error(void *usr, char *authinfo, char *errmsg, relpRetVal code) {
  (void)code;
  RelpLink *link = (RelpLink *)usr;
  if (link == NULL) return;
  link->auth_errors++;
  if (link->refusal[0] == '\0') take_text(link->refusal, sizeof link->refusal, authinfo);
  take_text(link->verdict, sizeof link->verdict, errmsg);
}

// 1 when librelp refused the receiver's certificate since the connect that
// began with before in auth_errors: logged once with its reason.
static int refused_since(RelpLink *link, const ShipTarget *target, unsigned before) {
  if (link->auth_errors == before) return 0;
  DLOG_ERROR("TLS to %s:%d: certificate verify failed: %s (%s)", target->host, (int)target->port,
             link->verdict, link->refusal);
  return 1;
}

// librelp 1.11 applies its "name" check only when the client has a
// certificate of its own; without one it takes any certificate that chains
// to the CA, whatever it names. The collector asks for no client
// certificate, so the link gives librelp a throwaway one: an EC key and a
// self-signed certificate, made once per link, kept in memory files that
// librelp opens by path. 0, or -1 (logged).
static int make_identity(RelpLink *link) {
  if (link->cert_fd >= 0 && link->key_fd >= 0) return 0;
  EVP_PKEY *key = EVP_PKEY_Q_keygen(NULL, NULL, "EC", "P-256");
  X509 *cert = X509_new();
  int cert_fd = memfd_create("relp_cert", MFD_CLOEXEC);
  int key_fd = memfd_create("relp_key", MFD_CLOEXEC);
  BIO *cert_out = cert_fd >= 0 ? BIO_new_fd(cert_fd, BIO_NOCLOSE) : NULL;
  BIO *key_out = key_fd >= 0 ? BIO_new_fd(key_fd, BIO_NOCLOSE) : NULL;
  X509_NAME *name = cert != NULL ? X509_get_subject_name(cert) : NULL;
  int ok = key != NULL && name != NULL && cert_out != NULL && key_out != NULL &&
           X509_set_version(cert, 2) == 1 &&
           ASN1_INTEGER_set(X509_get_serialNumber(cert), 1) == 1 &&
           X509_gmtime_adj(X509_getm_notBefore(cert), 0) != NULL &&
           X509_gmtime_adj(X509_getm_notAfter(cert), 86400L * RELP_IDENTITY_DAYS) != NULL &&
           X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                      (const unsigned char *)SHIP_APP_NAME, -1, -1, 0) == 1 &&
           X509_set_issuer_name(cert, name) == 1 && X509_set_pubkey(cert, key) == 1 &&
           X509_sign(cert, key, EVP_sha256()) > 0 && PEM_write_bio_X509(cert_out, cert) == 1 &&
           PEM_write_bio_PrivateKey(key_out, key, NULL, NULL, 0, NULL, NULL) == 1;
  BIO_free(cert_out);
  BIO_free(key_out);
  X509_free(cert);
  EVP_PKEY_free(key);
  if (!ok) {
    DLOG_ERROR("relp link: no client certificate for librelp's name check: %s",
               cert_fd < 0 || key_fd < 0 ? strerror(errno) : "OpenSSL failed");
    if (cert_fd >= 0) close(cert_fd);
    if (key_fd >= 0) close(key_fd);
    ERR_clear_error();
    return -1;
  }
  link->cert_fd = cert_fd;
  link->key_fd = key_fd;
  return 0;
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

// relp+tls: librelp's TLS on the client, the receiver's certificate checked
// against the CA file and named HOST. librelp's "name" mode verifies the
// chain and then compares HOST, as text, with the certificate's DNS names,
// and without those its common name. 0; SHIP_REFUSED when the CA file
// cannot be read; -1.
static int enable_tls(RelpLink *link, const ShipTarget *target) {
  FILE *ca = fopen(SHIP_CA_FILE, "r");
  if (ca == NULL) {
    DLOG_ERROR("TLS to %s:%d: CA file %s unusable: %s", target->host, (int)target->port,
               SHIP_CA_FILE, strerror(errno));
    return SHIP_REFUSED;
  }
  fclose(ca);
  if (make_identity(link) != 0) return -1;
  // librelp takes its texts unqualified; it copies them.
  char ca_path[] = SHIP_CA_FILE;
  char mode[] = "name";
  char peer[SENDER_HOST_SIZE];
  char cert_path[RELP_FD_PATH_SIZE], key_path[RELP_FD_PATH_SIZE];
  memcpy(peer, target->host, sizeof peer);
  int c = snprintf(cert_path, sizeof cert_path, "/proc/self/fd/%d", link->cert_fd);
  int k = snprintf(key_path, sizeof key_path, "/proc/self/fd/%d", link->key_fd);
  if (c < 0 || (size_t)c >= sizeof cert_path || k < 0 || (size_t)k >= sizeof key_path) return -1;
  relpClt_t *client = link->client;
  relpRetVal r = relpCltEnableTLS(client);
  if (r == RELP_RET_OK) r = relpCltSetCACert(client, ca_path);
  if (r == RELP_RET_OK) r = relpCltSetOwnCert(client, cert_path);
  if (r == RELP_RET_OK) r = relpCltSetPrivKey(client, key_path);
  if (r == RELP_RET_OK) r = relpCltSetAuthMode(client, mode);
  if (r == RELP_RET_OK) r = relpCltAddPermittedPeer(client, peer);
  if (r != RELP_RET_OK) {
    DLOG_ERROR("TLS to %s:%d: librelp refused the TLS settings (%d)", target->host,
               (int)target->port, (int)r);
    return -1;
  }
  return 0;
}

// Opens a session to target on a fresh client. 0, or -1 (SHIP_REFUSED when
// the receiver's certificate did not verify) with no client left: librelp
// destroys the session of a failed connect itself.
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
  int tls = target->transport == SHIP_TRANSPORT_RELP_TLS ? enable_tls(link, target) : 0;
  unsigned refusals = link->auth_errors;
  link->refusal[0] = '\0';
  if (tls == 0) {
    r = relpCltConnect(link->client, 0, (unsigned char *)port, (unsigned char *)target->host);
    if (r != RELP_RET_OK) {
      DLOG_ERROR("relp connect() error: %s:%s (%d)", target->host, port, (int)r);
      tls = refused_since(link, target, refusals) ? SHIP_REFUSED : -1;
    }
  }
  if (tls != 0) {
    relpEngineCltDestruct(link->engine, &link->client);
    link->client = NULL;
    return tls;
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
  relpEngineSetOnAuthErr(link->engine, on_relp_auth_error);
  // OpenSSL, as the tls transport uses: one TLS library in the process.
  if (relpEngineSetTLSLibByName(link->engine, "openssl") != RELP_RET_OK)
    DLOG_ERROR("relp link: librelp without OpenSSL; relp+tls uses its default TLS library");
  link->state = RELP_CLOSED;
  link->cert_fd = -1;
  link->key_fd = -1;
  return link;
}

int relp_link_send(RelpLink *link, const ShipTarget *target, const char *const *msgs,
                   const size_t *lens, int count) {
  if (link == NULL || target == NULL || msgs == NULL || lens == NULL || count <= 0) return 0;
  if (!ship_over_relp(target) || target->port < 1 ||
      target->port > RELP_PORT_MAX || memchr(target->host, '\0', sizeof target->host) == NULL ||
      target->host[0] == '\0') {
    DLOG_ERROR("relp connect() error: not a RELP collector");
    return 0;
  }

  PipeGuard guard;
  pipe_hold(&guard);
  if (link->state != RELP_CLOSED && !same_target(&link->target, target)) close_session(link);

  if (link->state == RELP_BROKEN) {
    unsigned refusals = link->auth_errors;
    link->refusal[0] = '\0';
    relpRetVal r = relpCltReconnect(link->client);
    if (r != RELP_RET_OK) {
      DLOG_ERROR("relp connect() error: reconnect to %s:%d (%d)", target->host, target->port,
                 (int)r);
      int refused = refused_since(link, target, refusals);
      pipe_release(&guard);
      return refused ? SHIP_REFUSED : 0;
    }
    link->state = RELP_OPEN;
  } else if (link->state == RELP_CLOSED) {
    int rc = open_session(link, target);
    if (rc != 0) {
      pipe_release(&guard);
      return rc == SHIP_REFUSED ? SHIP_REFUSED : 0;
    }
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
  if (link->cert_fd >= 0) close(link->cert_fd);
  if (link->key_fd >= 0) close(link->key_fd);
  free(link);
}
