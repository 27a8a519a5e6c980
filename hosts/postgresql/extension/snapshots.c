/*
 * The log has an entry for each changed row, with the transaction that changed it. A row may differ
 * between two snapshots only if it has an entry of a transaction that one of them sees and the
 * other does not. Entries that are rolled back are invisible to any reader of the log.
 */
#include "access/genam.h"
#include "access/table.h"
#include "access/transam.h"
#include "access/xact.h"
#include "catalog/pg_type.h"
#include "extension/qx.h"
#include "lib/qunique.h"
#include "utils/fmgroids.h"
#include "utils/snapmgr.h"

uint64 qx_full_xid(TransactionId xid) {
  FullTransactionId next = ReadNextFullTransactionId();
  uint32 epoch = EpochFromFullTransactionId(next);
  if (xid > XidFromFullTransactionId(next)) epoch--;
  return U64FromFullTransactionId(FullTransactionIdFromEpochAndXid(epoch, xid));
}

void qx_write_snapshot(StringInfo to, Snapshot snapshot, uint32 relation_file) {
  /* In recovery all transactions in progress are in subxip. */
  bool recovery = snapshot->takenDuringRecovery;
  uint32 n = recovery ? (uint32)snapshot->subxcnt : snapshot->xcnt;
  QxHorizon horizon = {qx_full_xid(snapshot->xmin), qx_full_xid(snapshot->xmax), relation_file, n};
  uint32 i;
  appendBinaryStringInfo(to, (const char*)&horizon, sizeof horizon);
  for (i = 0; i < n; i++) {
    qx_put(to, uint64, qx_full_xid(recovery ? snapshot->subxip[i] : snapshot->xip[i]));
  }
}

QxSnapshot qx_read_snapshot(const char** from) {
  QxSnapshot snapshot;
  Size size;
  qx_take(from, &snapshot.horizon, sizeof snapshot.horizon);
  size = sizeof(uint64) * snapshot.horizon.n_running;
  snapshot.running = palloc(size + 1);
  qx_take(from, snapshot.running, size);
  return snapshot;
}

static bool committed_before(uint64 xid, const QxSnapshot* snapshot) {
  uint32 i;
  if (xid < snapshot->horizon.xmin) return true;
  if (xid >= snapshot->horizon.xmax) return false;
  for (i = 0; i < snapshot->horizon.n_running; i++) {
    if (snapshot->running[i] == xid) return false;
  }
  return true;
}

static int compare_keys(const void* a, const void* b) {
  const bytea *x = *(bytea*const*)a, *y = *(bytea*const*)b;
  int difference = memcmp(VARDATA(x), VARDATA(y), Min(VARSIZE(x), VARSIZE(y)) - VARHDRSZ);
  if (difference != 0) return difference;
  return (VARSIZE(x) > VARSIZE(y)) - (VARSIZE(x) < VARSIZE(y));
}

/* How far the log was pruned, as `reading` sees it. */
static uint64 pruned_until(const QxDefinition* d, Snapshot reading) {
  return (uint64)qx_read_tables(d->tables, d->table, QX_TABLES_PRUNED, reading);
}

/* Own changes that came later than the snapshot count too: they are read by it all the same. */
static bool differs(uint64 xid, uint64 own, const QxSnapshot* others, int n, Snapshot snapshot) {
  bool unseen;
  if (xid == own) return true;
  unseen = XidInMVCCSnapshot((TransactionId)xid, snapshot);
  for (int i = 0; i < n; i++) {
    if (committed_before(xid, &others[i]) == unseen) return true;
  }
  return false;
}

QxChanges qx_changes_between(const QxDefinition* d, Snapshot reading, const QxSnapshot* others,
                             int n_others, Snapshot snapshot) {
  QxChanges changes = {0};
  uint64 first = qx_full_xid(snapshot->xmin);
  uint64 own = U64FromFullTransactionId(GetTopFullTransactionIdIfAny());
  Relation log = table_open(d->log, AccessShareLock);
  SysScanDesc scan;
  ScanKeyData keys[2];
  HeapTuple entry;
  int room = 64;
  for (int i = 0; i < n_others; i++) first = Min(first, others[i].horizon.xmin);
  changes.keys = palloc(sizeof(bytea*) * (Size)room);
  ScanKeyInit(&keys[0], 1, BTEqualStrategyNumber, F_OIDEQ, ObjectIdGetDatum(d->table));
  ScanKeyInit(&keys[1], 2, BTGreaterEqualStrategyNumber, F_INT8GE, Int64GetDatum((int64)first));
  scan = systable_beginscan(log, d->log_key, true, reading, 2, keys);
  while ((entry = systable_getnext(scan)) != NULL) {
    bool null;
    uint64 xid = (uint64)DatumGetInt64(heap_getattr(entry, 2, RelationGetDescr(log), &null));
    Datum key = heap_getattr(entry, 3, RelationGetDescr(log), &null);
    changes.any_entry = true;
    if (!differs(xid, own, others, n_others, snapshot)) continue;
    if (null) changes.all = true;
    if (changes.count == room) {
      room *= 2;
      changes.keys = repalloc_huge(changes.keys, sizeof(bytea*) * (Size)room);
    }
    if (!null) changes.keys[changes.count++] = DatumGetByteaPCopy(key);
  }
  systable_endscan(scan);
  table_close(log, AccessShareLock);
  if (pruned_until(d, reading) > first) changes.all = true;
  qsort(changes.keys, (size_t)changes.count, sizeof(bytea*), compare_keys);
  changes.count = (int)qunique(changes.keys, (size_t)changes.count, sizeof(bytea*), compare_keys);
  return changes;
}
