-- The five questions of docs/reading-dumps.md for Spark 3.3 or newer (spark-sql), in the lake's directory. Not tested here.
CREATE OR REPLACE TEMPORARY VIEW vitals USING parquet OPTIONS (path 'vitals');
CREATE OR REPLACE TEMPORARY VIEW processes USING parquet OPTIONS (path 'processes');
CREATE OR REPLACE TEMPORARY VIEW dumps AS SELECT * FROM parquet.`dumps/*/*/*.parquet`;

-- Which processes used the CPUs most?
SELECT dump, pid, name, sum(used_ticks) / 250.0 AS cpu_seconds, round(max(cpu_total), 1) AS peak
FROM processes GROUP BY dump, pid, name ORDER BY cpu_seconds DESC, dump, pid LIMIT 3;

-- Who was busy in the worst seconds?
WITH worst AS (SELECT dump, second, cpu_total FROM vitals ORDER BY cpu_total DESC NULLS LAST, dump, second LIMIT 3)
SELECT w.dump, w.second, w.cpu_total, p.name, round(max(p.cpu_total), 1) AS percent
FROM processes p JOIN worst w ON p.dump = w.dump AND p.time_ns DIV 1000000000 = w.second
GROUP BY w.dump, w.second, w.cpu_total, p.pid, p.name
ORDER BY w.cpu_total DESC, percent DESC NULLS LAST, p.name LIMIT 4;

-- Which processes grow?
SELECT dump, name, pid, min_by(rss_kib, time_ns) AS oldest_kib, max_by(rss_kib, time_ns) AS newest_kib,
       round((max_by(rss_kib, time_ns) - min_by(rss_kib, time_ns)) * 60e9 / (max(time_ns) - min(time_ns))) AS kib_a_minute
FROM processes GROUP BY dump, pid, name HAVING max(time_ns) - min(time_ns) > 60e9
ORDER BY kib_a_minute DESC, dump, pid LIMIT 3;

-- Which build runs hotter?
SELECT d.model, d.build, count(DISTINCT v.dump) AS dumps, count(v.cpu_total) AS seconds,
       round(avg(v.cpu_total), 1) AS cpu, max(v.temperature_average) AS hottest, round(max(v.io_wait), 1) AS io_wait
FROM vitals v JOIN dumps d USING (dump) GROUP BY d.model, d.build ORDER BY d.model, d.build;

-- Which dumps are incomplete?
SELECT dump, bytes, damaged_bytes, damaged_spans, if(trailer = 1, '', 'truncated') AS note
FROM dumps WHERE damaged_spans > 0 OR trailer = 0 ORDER BY dump;
