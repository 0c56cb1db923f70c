-- Layout 3: from where on a log can send. A generation that an archiver of before opens says nothing of it.

-- The oldest id that the blade had when it last opened a link on which it brought events of this generation;
-- a log's oldest id never falls.
ALTER TABLE generations ADD COLUMN oldest bigint;

UPDATE meta SET value = '3' WHERE name = 'layout';
