\echo Use "ALTER EXTENSION qx UPDATE TO '1.1'" to load this file. \quit

-- Keys are bytes: those of a uuid or a text, or a big-endian bigint. Sessions that have loaded the
-- library before the update find no log, so that they write none.
CREATE TABLE qx.changes (relation oid NOT NULL, xid bigint NOT NULL, key bytea);
CREATE INDEX changes_key ON qx.changes (relation, xid);
LOCK TABLE qx.log IN ACCESS EXCLUSIVE MODE;
INSERT INTO qx.changes SELECT relation, xid, pg_catalog.int8send(id) FROM qx.log;
CREATE OR REPLACE VIEW qx.stat_indexes AS
  SELECT c.oid::regclass AS relation, s.ready, s.rows, s.rows_expected, s.bytes, s.changes,
         (SELECT count(*) FROM qx.changes l WHERE l.relation = c.oid) AS log_entries,
         s.searches, s.search_microseconds, s.error
  FROM pg_catalog.pg_trigger t
  JOIN pg_catalog.pg_class c ON c.oid = t.tgrelid
  LEFT JOIN qx.stat() s ON s.relation = c.oid
  WHERE t.tgfoid = 'qx.declare_columns'::pg_catalog.regproc
    AND pg_catalog.has_table_privilege(c.oid, 'SELECT');
DROP FUNCTION qx.waiting(oid);
DROP TABLE qx.log;
SELECT pg_catalog.pg_terminate_backend(pid) FROM pg_catalog.pg_stat_activity
  WHERE backend_type = 'qx worker' AND datname = pg_catalog.current_database();

CREATE FUNCTION qx.search_uuid(relation regclass, query real[], k bigint, filter text DEFAULT NULL,
  OUT id uuid, OUT score real) RETURNS SETOF record LANGUAGE c STABLE PARALLEL RESTRICTED ROWS 10
  AS 'MODULE_PATHNAME', 'qx_search';
CREATE FUNCTION qx.search_text(relation regclass, query real[], k bigint, filter text DEFAULT NULL,
  OUT id text, OUT score real) RETURNS SETOF record LANGUAGE c STABLE PARALLEL RESTRICTED ROWS 10
  AS 'MODULE_PATHNAME', 'qx_search';

CREATE FUNCTION qx.cosine(real[], real[]) RETURNS real LANGUAGE c IMMUTABLE STRICT PARALLEL SAFE
  AS 'MODULE_PATHNAME', 'qx_cosine';
-- What operators give rises from the nearest on.
CREATE FUNCTION qx.planned(internal) RETURNS internal LANGUAGE c STRICT
  AS 'MODULE_PATHNAME', 'qx_planned';
CREATE FUNCTION qx.by_inner_product(real[], real[]) RETURNS real LANGUAGE c IMMUTABLE STRICT
  PARALLEL SAFE SUPPORT qx.planned AS 'MODULE_PATHNAME', 'qx_by_inner_product';
CREATE FUNCTION qx.by_cosine(real[], real[]) RETURNS real LANGUAGE c IMMUTABLE STRICT
  PARALLEL SAFE SUPPORT qx.planned AS 'MODULE_PATHNAME', 'qx_by_cosine';
CREATE FUNCTION qx.by_distance(real[], real[]) RETURNS real LANGUAGE c IMMUTABLE STRICT
  PARALLEL SAFE SUPPORT qx.planned AS 'MODULE_PATHNAME', 'qx_squared_distance';
CREATE OPERATOR qx.<#> (FUNCTION = qx.by_inner_product, LEFTARG = real[], RIGHTARG = real[],
  COMMUTATOR = OPERATOR(qx.<#>));
CREATE OPERATOR qx.<=> (FUNCTION = qx.by_cosine, LEFTARG = real[], RIGHTARG = real[],
  COMMUTATOR = OPERATOR(qx.<=>));
CREATE OPERATOR qx.<-> (FUNCTION = qx.by_distance, LEFTARG = real[], RIGHTARG = real[],
  COMMUTATOR = OPERATOR(qx.<->));

-- Of the latest search of the session: whoever merges its rows needs their order, and knows what they lack.
CREATE FUNCTION qx.last_metric() RETURNS smallint LANGUAGE c VOLATILE PARALLEL RESTRICTED
  AS 'MODULE_PATHNAME', 'qx_last_metric';
CREATE FUNCTION qx.missing_shards() RETURNS text[] LANGUAGE c VOLATILE PARALLEL RESTRICTED
  AS 'MODULE_PATHNAME', 'qx_missing_shards';
