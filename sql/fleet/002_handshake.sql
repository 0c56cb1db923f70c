-- Layout 2: a log's row tells all that a handshake asks but the bytes of the blade's oldest event, and what
-- numbers mean has names.

-- Archivers of before do not keep what is kept here from now on. One that is still connected finds this
-- column no more, and ends.
ALTER TABLE logs RENAME COLUMN visits TO unclaimed;
ALTER TABLE logs
    ADD COLUMN ring_first bigint,           -- the oldest event that the blade had at its last handshake
    ADD COLUMN highest    bigint,           -- of the newest generation: no higher id is held, or ever was
    ADD COLUMN run_first  bigint,           -- ids of it that were all held once, without a hole; written by
    ADD COLUMN run_last   bigint;           -- the transactions that file the events

ALTER TABLE set_aside ADD COLUMN generation bigint; -- the log's newest one then

-- Written by "evarchiver db create" and "db upgrade": from the program, and from the catalogue of events.
CREATE TABLE names (
    what    text     NOT NULL,              -- source, type, category, event
    source  integer  NOT NULL DEFAULT -1,   -- of an event
    number  integer  NOT NULL,
    version smallint NOT NULL DEFAULT -1,   -- of an event; -1: all that have no name of their own
    name    text     NOT NULL,
    PRIMARY KEY (what, source, number, version)
);

UPDATE logs l SET highest = greatest(
    (SELECT e.id FROM events e WHERE e.log = l.log AND e.generation = l.generation ORDER BY e.id DESC LIMIT 1),
    (SELECT g.run_last FROM generations g WHERE g.log = l.log AND g.generation = l.generation))
WHERE generation > 0 AND highest IS NULL;
UPDATE meta SET value = '2' WHERE name = 'layout';
