-- Which build leaks?
-- In how many of its dumps a process grows by more than 8 MiB a minute, and which one most often. Asked of a lake in the
-- current directory with DuckDB. scripts/fleet-bench plants such a build.
WITH growth AS (
    SELECT dump, name,
           (arg_max(rss_kib, time_ns) - arg_min(rss_kib, time_ns)) * 60e9 / (max(time_ns) - min(time_ns)) AS kib_a_minute
    FROM read_parquet('processes/*/*/*.parquet', hive_partitioning = false)
    GROUP BY dump, pid, name HAVING max(time_ns) - min(time_ns) > 60e9),
worst AS (SELECT dump, arg_max(name, kib_a_minute) AS name, max(kib_a_minute) AS kib_a_minute FROM growth GROUP BY dump)
SELECT build, count(*) AS dumps, round(100.0 * count_if(kib_a_minute > 8192) / count(*), 1) AS percent_growing,
       mode(name) FILTER (kib_a_minute > 8192) AS name
FROM worst JOIN read_parquet('dumps/*/*/*.parquet', hive_partitioning = false) USING (dump)
GROUP BY build ORDER BY percent_growing DESC, build LIMIT 5;
