-- The five questions of docs/reading-dumps.md, asked of a lake in the current directory with DuckDB.

-- Which processes used the CPUs most?
SELECT dump, pid, name, sum(used_ticks) / 250.0 AS cpu_seconds, round(max(cpu_total), 1) AS peak
FROM read_parquet('processes/*/*/*.parquet', hive_partitioning = true)
GROUP BY dump, pid, name ORDER BY cpu_seconds DESC, dump, pid LIMIT 3;

-- Who was busy in the worst seconds?
WITH worst AS (
    SELECT dump, second, wall_time, cpu_total FROM read_parquet('vitals/*/*/*.parquet', hive_partitioning = true)
    ORDER BY cpu_total DESC NULLS LAST, dump, second LIMIT 3)
SELECT w.dump, w.second, w.cpu_total, p.name, round(max(p.cpu_total), 1) AS percent
FROM worst w JOIN read_parquet('processes/*/*/*.parquet', hive_partitioning = true) p
  ON p.dump = w.dump AND p.time_ns BETWEEN w.second * 1000000000 AND w.second * 1000000000 + 999999999
GROUP BY w.dump, w.second, w.cpu_total, p.pid, p.name
ORDER BY w.cpu_total DESC, percent DESC NULLS LAST, p.name LIMIT 4;

-- Which processes grow?
SELECT dump, name, pid, arg_min(rss_kib, time_ns) AS oldest_kib, arg_max(rss_kib, time_ns) AS newest_kib,
       round((newest_kib - oldest_kib) * 60e9 / (max(time_ns) - min(time_ns))) AS kib_a_minute
FROM read_parquet('processes/*/*/*.parquet', hive_partitioning = true)
GROUP BY dump, pid, name HAVING max(time_ns) - min(time_ns) > 60e9
ORDER BY kib_a_minute DESC, dump, pid LIMIT 3;

-- Which build runs hotter?
SELECT d.model, d.build, count(DISTINCT v.dump) AS dumps, count(v.cpu_total) AS seconds,
       round(avg(v.cpu_total), 1) AS cpu, max(v.temperature_average) AS hottest, round(max(v.io_wait), 1) AS io_wait
FROM read_parquet('vitals/*/*/*.parquet', hive_partitioning = false) v
JOIN read_parquet('dumps/*/*/*.parquet', hive_partitioning = false) d USING (dump)
GROUP BY d.model, d.build ORDER BY d.model NULLS FIRST, d.build NULLS FIRST;

-- Which dumps are incomplete?
SELECT dump, bytes, damaged_bytes, damaged_spans, if(trailer = 1, '', 'truncated') AS note
FROM read_parquet('dumps/*/*/*.parquet', hive_partitioning = false)
WHERE damaged_spans > 0 OR trailer = 0 ORDER BY dump;
