-- What dashboards and people read. Columns are only ever added at the end.

CREATE OR REPLACE VIEW blade_list AS
SELECT l.enclosure, l.blade, l.slot, l.instance, l.generation, l.seen, l.log,
       g.opened, g.duplicates, g.run_first, g.run_last
FROM logs l LEFT JOIN generations g ON g.log = l.log AND g.generation = l.generation;

CREATE OR REPLACE VIEW event_list AS
SELECT e.time, e.received, l.enclosure, l.blade, l.slot, l.instance, e.generation, e.id,
       e.source, e.type,
       CASE e.type WHEN 1 THEN 'information' WHEN 2 THEN 'warning' WHEN 3 THEN 'error' ELSE e.type::text END
           AS type_name,
       e.category, e.event, e.idversion, e.own, e.doubtful,
       e.generation = l.generation AS newest, length(e.data) AS bytes, e.data, e.log
FROM events e JOIN logs l ON l.log = e.log;

-- Ids that are missing between the first and the last one held, of all generations.
CREATE OR REPLACE VIEW gap_list AS
SELECT l.enclosure, l.blade, l.slot, l.instance, g.generation, g.before + 1 AS first, g.id - 1 AS last, g.log
FROM (SELECT log, generation, id, lag(id) OVER (PARTITION BY log, generation ORDER BY id) AS before FROM events) g
     JOIN logs l ON l.log = g.log
WHERE g.id > g.before + 1;

CREATE OR REPLACE VIEW set_aside_list AS
SELECT s.received, l.enclosure, l.blade, l.slot, l.instance, s.id, s.reason, s.image, s.log
FROM set_aside s JOIN logs l ON l.log = s.log;
