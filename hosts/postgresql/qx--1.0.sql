\echo Use "CREATE EXTENSION qx" to load this file. \quit

-- Whoever owns the schema could put what he likes beside the extension's own.
DO $$ BEGIN
  IF NOT (SELECT r.rolsuper FROM pg_catalog.pg_namespace n JOIN pg_catalog.pg_roles r
          ON r.oid OPERATOR(pg_catalog.=) n.nspowner WHERE n.nspname OPERATOR(pg_catalog.=) 'qx') THEN
    RAISE EXCEPTION 'the schema qx is owned by a user who is no superuser';
  END IF;
END $$;

-- Which rows of which tables were changed by which transactions, until all know. The id is NULL
-- where any row may have been.
CREATE TABLE qx.log (relation oid NOT NULL, xid bigint NOT NULL, id bigint);
CREATE INDEX log_key ON qx.log (relation, xid);
-- Transactions before `pruned` have no entries in the log any more; vectors have `dim` numbers.
CREATE TABLE qx.tables (relation oid PRIMARY KEY, pruned bigint NOT NULL DEFAULT 0, dim int);

CREATE FUNCTION qx.log_change() RETURNS trigger LANGUAGE c AS 'MODULE_PATHNAME', 'qx_log_change';
CREATE FUNCTION qx.log_truncate() RETURNS trigger LANGUAGE c AS 'MODULE_PATHNAME', 'qx_log_truncate';
CREATE FUNCTION qx.declare_columns() RETURNS trigger LANGUAGE c
  AS 'MODULE_PATHNAME', 'qx_declare_columns';
CREATE FUNCTION qx.log_table(oid) RETURNS void LANGUAGE c STRICT AS 'MODULE_PATHNAME', 'qx_log_table';
REVOKE EXECUTE ON FUNCTION qx.log_table(oid) FROM PUBLIC;

CREATE FUNCTION qx.create_index(
  relation regclass, vector name, columns name[] DEFAULT '{}', metric text DEFAULT 'inner product',
  dim int DEFAULT NULL) RETURNS void LANGUAGE c AS 'MODULE_PATHNAME', 'qx_create_index';
CREATE FUNCTION qx.drop_index(relation regclass) RETURNS void LANGUAGE c STRICT
  AS 'MODULE_PATHNAME', 'qx_drop_index';
CREATE FUNCTION qx.search(relation regclass, query real[], k bigint, filter text DEFAULT NULL,
  OUT id bigint, OUT score real) RETURNS SETOF record LANGUAGE c STABLE PARALLEL RESTRICTED ROWS 10
  AS 'MODULE_PATHNAME', 'qx_search';
CREATE FUNCTION qx.last_search() RETURNS text LANGUAGE c VOLATILE PARALLEL RESTRICTED
  AS 'MODULE_PATHNAME', 'qx_last_search';
CREATE FUNCTION qx.inner_product(real[], real[]) RETURNS real LANGUAGE c IMMUTABLE STRICT PARALLEL SAFE
  AS 'MODULE_PATHNAME', 'qx_inner_product';
CREATE FUNCTION qx.squared_distance(real[], real[]) RETURNS real LANGUAGE c IMMUTABLE STRICT
  PARALLEL SAFE AS 'MODULE_PATHNAME', 'qx_squared_distance';

CREATE FUNCTION qx.stat(OUT relation oid, OUT ready boolean, OUT rows bigint, OUT rows_expected bigint,
  OUT bytes bigint, OUT changes bigint, OUT searches bigint, OUT search_microseconds bigint,
  OUT error text) RETURNS SETOF record LANGUAGE c STRICT PARALLEL RESTRICTED
  AS 'MODULE_PATHNAME', 'qx_stat';
CREATE FUNCTION qx.waiting(oid) RETURNS bigint LANGUAGE sql STABLE SECURITY DEFINER
  SET search_path = pg_catalog AS 'SELECT count(*) FROM qx.log WHERE relation = $1';
CREATE VIEW qx.stat_indexes AS
  SELECT c.oid::regclass AS relation, s.ready, s.rows, s.rows_expected, s.bytes, s.changes,
         qx.waiting(c.oid) AS log_entries, s.searches, s.search_microseconds, s.error
  FROM pg_catalog.pg_trigger t
  JOIN pg_catalog.pg_class c ON c.oid = t.tgrelid
  LEFT JOIN qx.stat() s ON s.relation = c.oid
  WHERE t.tgfoid = 'qx.declare_columns'::pg_catalog.regproc
    AND pg_catalog.has_table_privilege(c.oid, 'SELECT');
GRANT SELECT ON qx.stat_indexes TO PUBLIC;
GRANT USAGE ON SCHEMA qx TO PUBLIC;

-- What a table was altered to, or which triggers it has had, cannot be told from its rows.
CREATE FUNCTION qx.notice_ddl() RETURNS event_trigger LANGUAGE plpgsql SECURITY DEFINER
  SET search_path = pg_catalog, pg_temp AS $$
DECLARE
  touched oid;
BEGIN
  FOR touched IN
    SELECT CASE WHEN c.classid = 'pg_trigger'::regclass
      THEN (SELECT tgrelid FROM pg_trigger WHERE oid = c.objid) ELSE c.objid END
    FROM pg_event_trigger_ddl_commands() c
    WHERE c.classid IN ('pg_trigger'::regclass, 'pg_class'::regclass)
  LOOP
    IF EXISTS (SELECT FROM pg_trigger
               WHERE tgrelid = touched AND tgfoid = 'qx.declare_columns'::regproc) THEN
      PERFORM qx.log_table(touched);
    END IF;
  END LOOP;
END $$;
CREATE EVENT TRIGGER qx_notice_ddl ON ddl_command_end
  WHEN TAG IN ('ALTER TABLE', 'CREATE TRIGGER', 'ALTER TRIGGER')
  EXECUTE FUNCTION qx.notice_ddl();
ALTER EVENT TRIGGER qx_notice_ddl ENABLE ALWAYS;
