/* What shard.c and shards.c share: a server that is asked. */
#ifndef QX_SHARDS_H
#define QX_SHARDS_H

#include "extension/qx.h"
#include "foreign/foreign.h"
#include "libpq-fe.h"

#define QX_MOST_OPTIONS 64

typedef struct QxConnectionOptions {
  int n;
  const char* names[QX_MOST_OPTIONS + 1]; /* the last is null */
  const char* values[QX_MOST_OPTIONS + 1];
} QxConnectionOptions;

typedef enum QxShardState { QX_CONNECTING, QX_ASKED, QX_DONE } QxShardState;

/* A server as one role of this session reaches it. The connection is kept for later searches. */
typedef struct QxShard {
  Oid mapping; /* of the user */
  PGconn* connection;
  char* connected_by; /* these options */

  /* The rest is of one search. */
  QxShardState state;
  const char* name;
  List* tables; /* their names there */
  QxConnectionOptions options;
  bool must_use_password;
  bool reconnected; /* since it was asked */
  bool reads;       /* while it connects: what its socket is awaited for */
  int host;         /* the first of the list that is tried */
  PGresult* answer;
  const char* missing; /* why there is none, or null */
} QxShard;

/* Ready to be asked; of the caller's user mapping. */
QxShard* qx_shard_of(const ForeignServer* server);
void qx_shard_start(QxShard* shard, const QxQuestion* question);
void qx_shards_wait(List* shards, const QxQuestion* question);
void qx_shard_disconnect(QxShard* shard);

#endif
