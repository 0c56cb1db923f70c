-- Who may do what. Roles belong to the whole server: those that are there already are kept, and whoever finds
-- them there needs no right to make some.
DO $$ BEGIN
    IF NOT EXISTS (SELECT FROM pg_roles WHERE rolname = 'ev_writer') THEN CREATE ROLE ev_writer NOLOGIN; END IF;
    EXCEPTION WHEN duplicate_object THEN NULL;
END $$;
DO $$ BEGIN
    IF NOT EXISTS (SELECT FROM pg_roles WHERE rolname = 'ev_reader') THEN CREATE ROLE ev_reader NOLOGIN; END IF;
    EXCEPTION WHEN duplicate_object THEN NULL;
END $$;

REVOKE ALL ON logs, generations, events, set_aside, meta, names FROM PUBLIC;

-- An archiver. It changes no event but for the mark of doubt, with the time when that goes, and removes one only when the blade's
-- stream turns out to have been damaged, or the true one comes; it cannot touch what was set aside.
GRANT SELECT, INSERT ON logs, generations, events, set_aside TO ev_writer;
GRANT UPDATE (generation, epoch, owner, unclaimed, seen, ring_first, highest, run_first, run_last)
    ON logs TO ev_writer;
GRANT UPDATE (duplicates, run_first, run_last, oldest) ON generations TO ev_writer;
GRANT UPDATE (doubtful, received), DELETE ON events TO ev_writer;
GRANT SELECT ON meta, names TO ev_writer;

-- A dashboard, a page, a person; of the tables, what a program reads that takes a file or a server alike.
GRANT SELECT ON logs, generations, events, set_aside, meta, names TO ev_reader;
GRANT SELECT ON blade_list, event_list, gap_list, set_aside_list TO ev_reader;
