"""Spreads tables over servers: foreign servers, user mappings and partitions, for tests, demo and bench."""

PARTITION = "FOR VALUES WITH (MODULUS {}, REMAINDER {})"


def add_server(run, name, database, *clusters, user="postgres", **options):
    """Makes a foreign server of the current user; several clusters are a primary and its standbys."""
    options = {"host": ",".join(str(cluster.folder) for cluster in clusters), "dbname": database,
               "batch_size": "1000"} | options
    if len(clusters) > 1:
        options["target_session_attrs"] = "read-write"
    listed = ", ".join(f"{option} '{value}'" for option, value in options.items())
    run(f"CREATE SERVER {name} FOREIGN DATA WRAPPER postgres_fdw OPTIONS ({listed})")
    run(f"CREATE USER MAPPING FOR CURRENT_USER SERVER {name} OPTIONS (user '{user}')")


def spread(run, table, columns, servers, remote):
    """A partitioned table over the table `remote` of each server, by the hash of the first column."""
    run(f"CREATE TABLE {table} ({columns}) PARTITION BY HASH ({columns.split()[0]})")
    for number, server in enumerate(servers):
        run(f"CREATE FOREIGN TABLE {table}_{server} PARTITION OF {table} "
            f"{PARTITION.format(len(servers), number)} SERVER {server} OPTIONS (table_name '{remote}')")
