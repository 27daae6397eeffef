-- The five questions of docs/reading-dumps.md, asked of the tables of `vestra-dump clickhouse --schema`.
-- FINAL leaves out what was loaded twice. Rows of a dump are on one server, so joins need GLOBAL only for the short list.

-- Which processes used the CPUs most?
SELECT dump, pid, name, sum(used_ticks) / 250 AS cpu_seconds, round(max(cpu_total), 1) AS peak
FROM vestra.processes FINAL
GROUP BY dump, pid, name ORDER BY cpu_seconds DESC, dump, pid LIMIT 3;

-- Who was busy in the worst seconds?
SELECT dump, second, worst_total, name, round(max(percent), 1) AS percent
FROM (SELECT dump, intDiv(time_ns, 1000000000) AS second, pid, name, cpu_total AS percent FROM vestra.processes FINAL)
GLOBAL ANY INNER JOIN (
    SELECT dump, second, cpu_total AS worst_total FROM vestra.vitals FINAL
    WHERE cpu_total IS NOT NULL ORDER BY cpu_total DESC, dump, second LIMIT 3)
USING dump, second
GROUP BY dump, second, worst_total, pid, name
ORDER BY worst_total DESC, percent DESC, name LIMIT 4;

-- Which processes grow?
SELECT dump, name, pid, argMin(rss_kib, time_ns) AS oldest_kib, argMax(rss_kib, time_ns) AS newest_kib,
       round((newest_kib - oldest_kib) * 60e9 / (max(time_ns) - min(time_ns))) AS kib_a_minute
FROM vestra.processes FINAL
GROUP BY dump, pid, name HAVING max(time_ns) - min(time_ns) > 60e9
ORDER BY kib_a_minute DESC, dump, pid LIMIT 3;

-- Which build runs hotter?
SELECT model, build, uniqExact(dump) AS dumps, count(cpu_total) AS seconds, round(avg(cpu_total), 1) AS cpu,
       max(temperature_average) AS hottest, round(max(io_wait), 1) AS io_wait
FROM (SELECT dump, cpu_total, temperature_average, io_wait FROM vestra.vitals FINAL)
GLOBAL ANY INNER JOIN (SELECT dump, model, build FROM vestra.dumps FINAL) USING dump
GROUP BY model, build ORDER BY model, build;

-- Which dumps are incomplete?
SELECT dump, bytes, damaged_bytes, damaged_spans, if(trailer = 1, '', 'truncated') AS note
FROM vestra.dumps FINAL
WHERE damaged_spans > 0 OR trailer = 0 ORDER BY dump;
