-- A hub: a database in which an archive that is spread over several servers looks like one. It holds no
-- event. Its tables are parted by the log's number, a part for each server, which "evarchiver db hub" adds.
-- Archivers ask it which servers there are and file there; it is for those who read. As of layout 1, like the
-- schema of the servers; the files behind that one change both.
CREATE EXTENSION IF NOT EXISTS postgres_fdw;

CREATE TABLE logs (
    log bigint NOT NULL, identity bytea NOT NULL, enclosure text NOT NULL, blade text NOT NULL,
    slot bigint NOT NULL, instance bigint NOT NULL,
    generation bigint NOT NULL DEFAULT 0, epoch bigint NOT NULL DEFAULT 0,
    owner bigint NOT NULL DEFAULT 0, visits bigint NOT NULL DEFAULT 0, seen timestamptz
) PARTITION BY RANGE (log);

CREATE TABLE generations (
    log bigint NOT NULL, generation bigint NOT NULL, opened timestamptz NOT NULL,
    duplicates bigint NOT NULL DEFAULT 0, run_first bigint, run_last bigint
) PARTITION BY RANGE (log);

CREATE TABLE events (
    log bigint NOT NULL, id bigint NOT NULL, time timestamptz NOT NULL, received timestamptz NOT NULL,
    generation bigint NOT NULL, event integer NOT NULL, source smallint NOT NULL, type smallint NOT NULL,
    category smallint NOT NULL, idversion smallint NOT NULL, own boolean NOT NULL,
    doubtful boolean NOT NULL, head bytea, data bytea NOT NULL
) PARTITION BY RANGE (log);

CREATE TABLE set_aside (
    log bigint NOT NULL, id bigint NOT NULL, digest bytea NOT NULL, reason smallint NOT NULL,
    received timestamptz NOT NULL, image bytea NOT NULL
) PARTITION BY RANGE (log);

-- The servers, from 1 on; what archivers connect to.
CREATE TABLE nodes (number bigint PRIMARY KEY, place text NOT NULL);

CREATE TABLE meta (name text PRIMARY KEY, value text NOT NULL);
INSERT INTO meta VALUES ('archive', 'EVAR'), ('layout', '1');
