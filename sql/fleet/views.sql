-- What dashboards and people read. Columns are only ever added at the end.

CREATE OR REPLACE VIEW blade_list AS
SELECT l.enclosure, l.blade, l.slot, l.instance, l.generation, l.seen, l.log, g.opened, g.duplicates,
       CASE WHEN l.run_last IS NULL THEN g.run_first ELSE l.run_first END AS run_first,
       coalesce(l.run_last, g.run_last) AS run_last, l.ring_first, l.highest
FROM logs l LEFT JOIN generations g ON g.log = l.log AND g.generation = l.generation;

CREATE OR REPLACE VIEW event_list AS
SELECT e.time, e.received, l.enclosure, l.blade, l.slot, l.instance, e.generation, e.id,
       e.source, e.type, coalesce(t.name, e.type::text) AS type_name,
       e.category, e.event, e.idversion, e.own, e.doubtful,
       e.generation = l.generation AS newest, length(e.data) AS bytes, e.data, e.log,
       s.name AS source_name, c.name AS category_name, coalesce(v.name, n.name) AS event_name
FROM events e JOIN logs l ON l.log = e.log
     LEFT JOIN names s ON s.what = 'source' AND s.source = -1 AND s.number = e.source AND s.version = -1
     LEFT JOIN names t ON t.what = 'type' AND t.source = -1 AND t.number = e.type AND t.version = -1
     LEFT JOIN names c ON c.what = 'category' AND c.source = -1 AND c.number = e.category AND c.version = -1
     LEFT JOIN names n ON n.what = 'event' AND n.source = e.source AND n.number = e.event AND n.version = -1
     LEFT JOIN names v ON v.what = 'event' AND v.source = e.source AND v.number = e.event
                       AND v.version = e.idversion;

-- Ids that are missing between the first and the last one held, of all generations.
CREATE OR REPLACE VIEW gap_list AS
SELECT l.enclosure, l.blade, l.slot, l.instance, g.generation, g.before + 1 AS first, g.id - 1 AS last, g.log
FROM (SELECT log, generation, id, lag(id) OVER (PARTITION BY log, generation ORDER BY id) AS before FROM events) g
     JOIN logs l ON l.log = g.log
WHERE g.id > g.before + 1;

CREATE OR REPLACE VIEW set_aside_list AS
SELECT s.received, l.enclosure, l.blade, l.slot, l.instance, s.id, s.reason, s.image, s.log, s.generation
FROM set_aside s JOIN logs l ON l.log = s.log;
