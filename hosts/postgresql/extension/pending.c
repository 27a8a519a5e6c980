/*
 * The row triggers of a statement fire at its end. A search before, in a trigger or in a volatile
 * function, sees rows that the statement has changed and that the log does not have yet. So the
 * rows that this transaction has logged are counted by subtransaction, as the server counts those
 * that it has changed.
 */
#include "access/xact.h"
#include "extension/qx.h"
#include "pgstat.h"
#include "storage/lmgr.h"
#include "utils/memutils.h"

typedef struct Fired {
  Oid table;
  int level; /* of the subtransaction */
  int64 rows;
  struct Fired* next;
} Fired;

static Fired* fired; /* in the transaction's memory */

static void note(Oid table, int level, int64 rows) {
  Fired* f = fired;
  while (f != NULL && (f->table != table || f->level != level)) f = f->next;
  if (f == NULL) {
    f = MemoryContextAllocZero(TopTransactionContext, sizeof *f);
    f->table = table;
    f->level = level;
    f->next = fired;
    fired = f;
  }
  f->rows += rows;
}

void qx_note_fired(Oid table) { note(table, GetCurrentTransactionNestLevel(), 1); }

bool qx_all_fired(Relation table) {
  int64 rows = 0;
  if (!pgstat_should_count_relation(table)) {
    return !CheckRelationLockedByMe(table, RowExclusiveLock, true);
  }
  for (const PgStat_TableXactStatus* s = table->pgstat_info->trans; s != NULL; s = s->upper) {
    rows += s->tuples_inserted + s->tuples_updated + s->tuples_deleted;
  }
  for (const Fired* f = fired; f != NULL; f = f->next) {
    if (f->table == RelationGetRelid(table)) rows -= f->rows;
  }
  return rows == 0;
}

static void at_end(XactEvent event, void* argument) {
  (void)argument;
  if (event == XACT_EVENT_COMMIT || event == XACT_EVENT_ABORT || event == XACT_EVENT_PREPARE) {
    fired = NULL;
  }
}

static void at_subtransaction(SubXactEvent event, SubTransactionId own, SubTransactionId parent,
                              void* argument) {
  int level = GetCurrentTransactionNestLevel();
  Fired** at = &fired;
  (void)own;
  (void)parent;
  (void)argument;
  if (event != SUBXACT_EVENT_COMMIT_SUB && event != SUBXACT_EVENT_ABORT_SUB) return;
  while (*at != NULL) {
    Fired* f = *at;
    if (f->level != level) {
      at = &f->next;
      continue;
    }
    *at = f->next;
    if (event == SUBXACT_EVENT_COMMIT_SUB) note(f->table, level - 1, f->rows);
  }
}

void qx_watch_pending(void) {
  RegisterXactCallback(at_end, NULL);
  RegisterSubXactCallback(at_subtransaction, NULL);
}
