-- Spreads an archive over the servers of a Citus cluster: run once, at the coordinator, right after
-- "evarchiver db create". Every statement of an archiver names the log, or is about logs by their number
-- alone, so each is answered where its rows are. Written by review; nothing here runs it.
--
-- An archiver may connect to any server of the cluster. It is cheapest at the one that holds a log's rows
-- (get_shard_id_for_distribution_column('logs', log), pg_dist_placement).
SELECT create_distributed_table('logs', 'log');
SELECT create_distributed_table('generations', 'log', colocate_with => 'logs');
SELECT create_distributed_table('events', 'log', colocate_with => 'logs');
SELECT create_distributed_table('set_aside', 'log', colocate_with => 'logs');
SELECT create_reference_table('meta');
SELECT create_reference_table('names');
