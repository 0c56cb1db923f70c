-- The archive of a fleet on PostgreSQL, layout 1; what later ones change stands in the files behind this one.
-- "evarchiver db create" runs it; so can an administrator.
-- No sequence, no trigger, no foreign key, no function of the server's own: any engine that speaks this
-- dialect can take it, and each table can be spread over servers by its column "log".

-- One log: enclosure, blade, slot and instance.
CREATE TABLE logs (
    log        bigint PRIMARY KEY,          -- computed from the identity, see docs/fleet.md
    identity   bytea  NOT NULL,             -- what it is computed from: tells a collision
    enclosure  text   NOT NULL,             -- for people; bytes that are no text as \xNN
    blade      text   NOT NULL,
    slot       bigint NOT NULL,
    instance   bigint NOT NULL,
    generation bigint NOT NULL DEFAULT 0,   -- the newest one; 0: none yet
    epoch      bigint NOT NULL DEFAULT 0,   -- handshakes so far; the last one made the owner
    owner      bigint NOT NULL DEFAULT 0,   -- a number that the owner drew
    visits     bigint NOT NULL DEFAULT 0,   -- transactions that filed without being the owner
    seen       timestamptz                  -- the last handshake or batch
) WITH (fillfactor = 70);                   -- each batch rewrites the row in place
CREATE INDEX logs_by_name ON logs (enclosure, blade, slot, instance);

-- A log that was rebuilt gives out its ids again, in a new generation.
CREATE TABLE generations (
    log        bigint NOT NULL,
    generation bigint NOT NULL,
    opened     timestamptz NOT NULL,
    duplicates bigint NOT NULL DEFAULT 0,   -- events that came again with the same bytes
    run_first  bigint,                      -- ids that were all held once, without a hole
    run_last   bigint,
    PRIMARY KEY (log, generation)
) WITH (fillfactor = 70);

CREATE TABLE events (
    log        bigint NOT NULL,
    id         bigint NOT NULL,
    time       timestamptz NOT NULL,        -- the event's own, so equal in every copy of it
    received   timestamptz NOT NULL,
    generation bigint NOT NULL,
    event      integer NOT NULL,
    source     smallint NOT NULL,
    type       smallint NOT NULL,
    category   smallint NOT NULL,
    idversion  smallint NOT NULL,
    own        boolean NOT NULL,            -- it bears the identity of its log
    doubtful   boolean NOT NULL,            -- it may be damaged, or came without a handshake
    head       bytea,                       -- the header as it came, where the columns do not tell
    data       bytea NOT NULL,
    PRIMARY KEY (log, generation, id, time)
) PARTITION BY RANGE (time);
ALTER TABLE events ALTER COLUMN data SET STORAGE MAIN;
CREATE INDEX events_by_arrival ON events USING brin (received);
CREATE INDEX events_worth_a_look ON events (type, time) WHERE type > 1;
-- For events of times that no partition is for: clocks can be wrong by decades.
CREATE TABLE events_default PARTITION OF events DEFAULT WITH (toast_tuple_target = 8160);

-- Came, could not be filed, is not thrown away.
CREATE TABLE set_aside (
    log        bigint NOT NULL,
    id         bigint NOT NULL,
    digest     bytea NOT NULL,              -- SHA-256 of the image: each one only once
    reason     smallint NOT NULL,           -- 1 borders lost, 2 never confirmed, 3 other identity,
                                            -- 4 superseded, 5 replaced, 6 refused by the engine
    received   timestamptz NOT NULL,
    image      bytea NOT NULL,
    PRIMARY KEY (log, id, digest)
);

CREATE TABLE meta (name text PRIMARY KEY, value text NOT NULL);
INSERT INTO meta VALUES ('archive', 'EVAR'), ('layout', '1'), ('retention_days', '30'), ('maintenance', '');
