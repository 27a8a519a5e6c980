/*
 * ORDER BY an operator of qx, ascending, is offered to the planner as a scan of the index, whose
 * rows come in that order; of a partitioned table, as a scan for each partition. It asks for the
 * best rows, and for more where the statement takes more; at the end come rows that no search
 * finds, in any order: those without a vector, and those whose score is none.
 */
#include "access/genam.h"
#include "access/table.h"
#include "access/tableam.h"
#include "executor/executor.h"
#include "extension/qx.h"
#include "miscadmin.h"
#include "nodes/extensible.h"
#include "nodes/makefuncs.h"
#include "nodes/nodeFuncs.h"
#include "nodes/supportnodes.h"
#include "optimizer/clauses.h"
#include "optimizer/cost.h"
#include "optimizer/optimizer.h"
#include "optimizer/pathnode.h"
#include "optimizer/paths.h"
#include "optimizer/restrictinfo.h"
#include "parser/parsetree.h"
#include "utils/guc.h"
#include "utils/lsyscache.h"
#include "utils/memutils.h"
#include "utils/snapmgr.h"

#define FIRST 64          /* rows, where the statement does not say how many it takes */
#define MORE 8            /* times as many for each search that follows */
#define WORST_SCORE 1e30f /* see convention 5 of the collection */
#define PART_READ 0.02    /* what a search costs of what a scan of the table does */

static bool use_index = true, warn_scans = true;
static set_rel_pathlist_hook_type next_hook;

/* As makeNode, which is no standard C. */
static void* make_node(Size size, NodeTag tag) {
  Node* node = palloc0(size);
  node->type = tag;
  return node;
}

/* ---- What is offered ----------------------------------------------------------------------- */

static int32 metric_of(Oid function) {
  const char* name = get_func_namespace(function) == qx_schema() ? get_func_name(function) : NULL;
  if (name == NULL) return -1;
  if (strcmp(name, "by_inner_product") == 0) return QX_INNER_PRODUCT;
  if (strcmp(name, "by_cosine") == 0) return QX_COSINE;
  return strcmp(name, "by_distance") == 0 ? QX_EUCLIDEAN : -1;
}

/* The query that an expression compares a column with, or null. */
static Expr* query_of(PlannerInfo* root, const Expr* expression, Index rti, AttrNumber vector,
                      int32 metric) {
  const OpExpr* call = (const OpExpr*)expression;
  if (!IsA(expression, OpExpr) || metric_of(call->opfuncid) != metric) return NULL;
  for (int i = 0; i < 2; i++) {
    const Var* column = list_nth(call->args, i);
    Node* query = list_nth(call->args, 1 - i);
    if (IsA(column, Var) && column->varno == (int)rti && column->varlevelsup == 0 &&
        column->varattno == vector && bms_is_empty(pull_varnos(root, query)) &&
        !contain_volatile_functions(query) && !contain_subplans(query)) {
      return (Expr*)query;
    }
  }
  return NULL;
}

static bool may_serve(const RangeTblEntry* entry, const QxDefinition* d) {
  return use_index && d->exists && d->complete && !entry->inh && entry->tablesample == NULL;
}

static const CustomPathMethods path_methods;

static void add_ordered_path(PlannerInfo* root, RelOptInfo* rel, PathKey* key, Expr* ordered,
                             Expr* query) {
  CustomPath* path = make_node(sizeof *path, T_CustomPath);
  double rows = Max(rel->tuples, 1), pages = index_pages_fetched(rows, rel->pages, 1, root);
  double taken = root->limit_tuples > 0 ? root->limit_tuples * rows / Max(rel->rows, 1) : FIRST;
  path->path.pathtype = T_CustomScan;
  path->path.parent = rel;
  path->path.pathtarget = rel->reltarget;
  path->path.pathkeys = list_make1(key);
  path->path.rows = rel->rows;
  path->path.startup_cost = PART_READ * (seq_page_cost * rel->pages + cpu_tuple_cost * rows) +
                            rel->baserestrictcost.startup;
  path->path.total_cost =
      path->path.startup_cost + random_page_cost * pages +
      (cpu_tuple_cost + cpu_index_tuple_cost + rel->baserestrictcost.per_tuple) * rows;
  path->flags = CUSTOMPATH_SUPPORT_PROJECTION;
  path->custom_private = list_make3(query, ordered, makeInteger((int)Min(Max(taken, 10), 1000000)));
  path->methods = &path_methods;
  add_path(rel, &path->path);
}

static void offer(PlannerInfo* root, RelOptInfo* rel, Index rti, RangeTblEntry* entry) {
  PathKey* key = root->query_pathkeys == NIL ? NULL : linitial(root->query_pathkeys);
  Relation table;
  QxDefinition d;
  ListCell* cell;
  if (next_hook != NULL) next_hook(root, rel, rti, entry);
  if (key == NULL || key->pk_strategy != BTLessStrategyNumber || key->pk_nulls_first ||
      (rel->reloptkind != RELOPT_BASEREL && rel->reloptkind != RELOPT_OTHER_MEMBER_REL) ||
      entry->rtekind != RTE_RELATION || entry->relkind != RELKIND_RELATION ||
      qx_schema() == InvalidOid) {
    return;
  }
  table = table_open(entry->relid, NoLock);
  d = *qx_definition(table);
  table_close(table, NoLock);
  if (!may_serve(entry, &d)) return;
  foreach (cell, key->pk_eclass->ec_members) {
    const EquivalenceMember* member = lfirst(cell);
    Expr* query = query_of(root, member->em_expr, rti, d.vector, d.metric);
    if (query != NULL) {
      add_ordered_path(root, rel, key, member->em_expr, query);
      return;
    }
  }
}

static const CustomScanMethods scan_methods;

static Plan* plan_path(PlannerInfo* root, RelOptInfo* rel, CustomPath* path, List* targets,
                       List* clauses, List* children) {
  CustomScan* scan = make_node(sizeof *scan, T_CustomScan);
  (void)root;
  (void)children;
  scan->scan.plan.targetlist = targets;
  scan->scan.plan.qual = extract_actual_clauses(clauses, false);
  scan->scan.scanrelid = rel->relid;
  scan->flags = path->flags;
  scan->custom_exprs = list_make2(linitial(path->custom_private), lsecond(path->custom_private));
  scan->custom_private = list_make1(lthird(path->custom_private));
  scan->methods = &scan_methods;
  return &scan->scan.plan;
}

static const CustomPathMethods path_methods = {.CustomName = "qx", .PlanCustomPath = plan_path};

/* ---- What is executed ---------------------------------------------------------------------- */

typedef struct Ordered {
  CustomScanState base;
  QxDefinition definition;
  ExprState *query, *score;
  Relation primary_key;
  IndexScanDesc by_key; /* once a row was asked for */
  TableScanDesc rest;   /* of rows that no search finds, once all others were given */
  MemoryContext found;  /* what the latest search found */
  bytea** keys;
  int64 asked, count, given;
} Ordered;

static bool ask_for_more(Ordered* o) {
  ScanState* scan = &o->base.ss;
  int64 first = intVal(linitial(((CustomScan*)scan->ps.plan)->custom_private));
  MemoryContext before;
  Datum query;
  bool null;
  if (o->asked > o->count) return false; /* the latest search found all */
  MemoryContextReset(o->found);
  before = MemoryContextSwitchTo(o->found);
  query = ExecEvalExpr(o->query, scan->ps.ps_ExprContext, &null);
  o->asked = o->asked == 0 ? first : o->asked * MORE;
  o->count = null ? 0
                  : qx_best_keys(scan->ss_currentRelation, scan->ps.state->es_snapshot,
                                 DatumGetArrayTypeP(query), o->asked, &o->keys);
  MemoryContextSwitchTo(before);
  return o->given < o->count;
}

static bool is_left(Ordered* o) {
  ExprContext* context = o->base.ss.ps.ps_ExprContext;
  bool null;
  float score;
  ResetExprContext(context);
  context->ecxt_scantuple = o->base.ss.ss_ScanTupleSlot;
  score = DatumGetFloat4(ExecEvalExprSwitchContext(o->score, context, &null));
  return null || !(score < WORST_SCORE);
}

static TupleTableSlot* next_row(ScanState* scan) {
  Ordered* o = (Ordered*)scan;
  TupleTableSlot* row = scan->ss_ScanTupleSlot;
  Snapshot snapshot = scan->ps.state->es_snapshot;
  while (o->given < o->count || ask_for_more(o)) {
    CHECK_FOR_INTERRUPTS();
    if (o->by_key == NULL) {
      o->by_key = index_beginscan(scan->ss_currentRelation, o->primary_key, snapshot, 1, 0);
    }
    qx_seek(o->by_key, &o->definition, o->keys[o->given++]);
    if (index_getnext_slot(o->by_key, ForwardScanDirection, row)) return row;
  }
  if (o->rest == NULL) o->rest = table_beginscan(scan->ss_currentRelation, snapshot, 0, NULL);
  while (table_scan_getnextslot(o->rest, ForwardScanDirection, row)) {
    CHECK_FOR_INTERRUPTS();
    if (is_left(o)) return row;
  }
  return ExecClearTuple(row);
}

static bool recheck(ScanState* scan, TupleTableSlot* row) {
  (void)scan;
  (void)row;
  return true;
}

static TupleTableSlot* execute(CustomScanState* scan) {
  return ExecScan(&scan->ss, next_row, recheck);
}

/* Rows are given as the table has them, with all system columns. */
static void begin(CustomScanState* scan, EState* state, int flags) {
  Ordered* o = (Ordered*)scan;
  Relation table = scan->ss.ss_currentRelation;
  Plan* plan = scan->ss.ps.plan;
  List* expressions = ((CustomScan*)plan)->custom_exprs;
  ExecInitScanTupleSlot(state, &scan->ss, RelationGetDescr(table), table_slot_callbacks(table));
  ExecAssignScanProjectionInfo(&scan->ss);
  scan->ss.ps.qual = ExecInitQual(plan->qual, &scan->ss.ps);
  o->query = ExecInitExpr(linitial(expressions), &scan->ss.ps);
  o->score = ExecInitExpr(lsecond(expressions), &scan->ss.ps);
  o->found = GenerationContextCreate(CurrentMemoryContext, "qx order", ALLOCSET_DEFAULT_SIZES);
  if (flags & EXEC_FLAG_EXPLAIN_ONLY) return;
  o->definition = *qx_definition(table);
  qx_require_index(table, &o->definition);
  o->primary_key = index_open(o->definition.primary_key, AccessShareLock);
}

static void end_scans(Ordered* o) {
  if (o->by_key != NULL) index_endscan(o->by_key);
  if (o->rest != NULL) table_endscan(o->rest);
  o->by_key = NULL;
  o->rest = NULL;
  o->asked = o->count = o->given = 0;
}

static void rescan(CustomScanState* scan) {
  ExecClearTuple(scan->ss.ss_ScanTupleSlot);
  end_scans((Ordered*)scan);
  ExecScanReScan(&scan->ss);
}

static void end(CustomScanState* scan) {
  Ordered* o = (Ordered*)scan;
  ExecClearTuple(scan->ss.ss_ScanTupleSlot);
  end_scans(o);
  if (o->primary_key != NULL) index_close(o->primary_key, NoLock);
}

static const CustomExecMethods exec_methods = {.CustomName = "qx",
                                               .BeginCustomScan = begin,
                                               .ExecCustomScan = execute,
                                               .EndCustomScan = end,
                                               .ReScanCustomScan = rescan};

static Node* make_state(CustomScan* scan) {
  Ordered* o = make_node(sizeof *o, T_CustomScanState);
  (void)scan;
  o->base.methods = &exec_methods;
  return (Node*)o;
}

static const CustomScanMethods scan_methods = {.CustomName = "qx",
                                               .CreateCustomScanState = make_state};

/* ---- What is not --------------------------------------------------------------------------- */

PG_FUNCTION_INFO_V1(qx_planned);

static void warn(const PlannerInfo* root, const Var* vector, Oid function) {
  const RangeTblEntry* entry = rt_fetch(vector->varno, root->parse->rtable);
  Relation table;
  const QxDefinition* d;
  if (entry->rtekind != RTE_RELATION || entry->relkind != RELKIND_RELATION) return;
  table = table_open(entry->relid, AccessShareLock);
  d = qx_definition(table);
  if (d->exists && d->vector == vector->varattno &&
      !(may_serve(entry, d) && d->metric == metric_of(function))) {
    ereport(WARNING,
            errmsg("this ORDER BY reads every row of \"%s\" and not its index of qx",
                   RelationGetRelationName(table)),
            d->metric != metric_of(function)
                ? errdetail("The operator is of another metric than the index.")
                : 0,
            errhint("Set qx.warn_scans to off if it should."));
  }
  table_close(table, AccessShareLock);
}

/* Called for each operator of a statement that is planned; nothing is simplified. The first call of
   a session loads the library, whose offer is then asked for. */
Datum qx_planned(PG_FUNCTION_ARGS) {
  const Node* request = (const Node*)PG_GETARG_POINTER(0);
  const SupportRequestSimplify* simplify = (const SupportRequestSimplify*)request;
  ListCell* argument;
  if (!IsA(request, SupportRequestSimplify) || !warn_scans || simplify->root == NULL ||
      simplify->root->parse->sortClause == NIL || simplify->root->parse->limitCount == NULL) {
    PG_RETURN_POINTER(NULL);
  }
  foreach (argument, simplify->fcall->args) {
    const Var* vector = lfirst(argument);
    if (IsA(vector, Var) && vector->varlevelsup == 0) {
      warn(simplify->root, vector, simplify->fcall->funcid);
    }
  }
  PG_RETURN_POINTER(NULL);
}

void qx_offer_order(void) {
  DefineCustomBoolVariable("qx.use_index", "Lets ORDER BY an operator use an index.", NULL,
                           &use_index, true, PGC_USERSET, 0, NULL, NULL, NULL);
  DefineCustomBoolVariable("qx.warn_scans", "Warns of an ORDER BY that cannot use an index.", NULL,
                           &warn_scans, true, PGC_USERSET, 0, NULL, NULL, NULL);
  RegisterCustomScanMethods(&scan_methods);
  next_hook = set_rel_pathlist_hook;
  set_rel_pathlist_hook = offer;
}
