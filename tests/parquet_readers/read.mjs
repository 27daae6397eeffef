// Reads Parquet files with one of three readers: node read.mjs READER FILE... Prints a list of {columns: {name: type}, rows,
// metadata}, in which integers are texts, and timestamps are texts of microseconds. DuckDB also answers queries:
// node read.mjs query SQL... prints a list of their rows.
import {readFileSync} from 'node:fs';

const [reader, ...words] = process.argv.slice(2);

async function ask(sql) {
    const {DuckDBInstance} = await import('@duckdb/node-api');
    const connection = await (await DuckDBInstance.create(':memory:')).connect();
    await connection.run("SET TimeZone = 'UTC'");
    const result = await connection.runAndReadAll(sql);
    return {names: result.columnNames(), types: result.columnTypes().map(String), rows: result.getRows()};
}

async function query(sql) {
    return (await ask(sql)).rows;
}

async function duckdb(file) {
    const {names, types, rows} = await ask(`SELECT * FROM read_parquet('${file}', hive_partitioning = false)`);
    const pairs = await ask(`SELECT decode(key), decode(value) FROM parquet_kv_metadata('${file}')`);
    const columns = Object.fromEntries(names.map((name, i) => [name, types[i]]));
    return {columns, rows: rows.map(row => row.map(cell => cell?.micros ?? cell)), metadata: Object.fromEntries(pairs.rows)};
}

async function wasm(file) {
    const {readParquet} = await import('parquet-wasm/node');
    const {tableFromIPC} = await import('apache-arrow');
    const table = tableFromIPC(readParquet(readFileSync(file)).intoIPCStream());
    // get() of a timestamp is milliseconds in a double.
    const column = field => {
        const vector = table.getChild(field.name);
        if (!String(field.type).startsWith('Timestamp')) return i => vector.get(i);
        const parts = vector.data.flatMap(data => Array.from({length: data.length}, (_, i) => data.getValid(i) ? data.values[i] : null));
        return i => parts[i];
    };
    const cells = table.schema.fields.map(column);
    const rows = Array.from({length: table.numRows}, (_, i) => cells.map(cell => cell(i)));
    const columns = Object.fromEntries(table.schema.fields.map(field => [field.name, String(field.type)]));
    return {columns, rows, metadata: Object.fromEntries(table.schema.metadata)};
}

async function hyparquet(file) {
    const {parquetMetadata, parquetReadObjects, parquetSchema} = await import('hyparquet');
    const {compressors} = await import('hyparquet-compressors');
    const bytes = readFileSync(file);
    const buffer = bytes.buffer.slice(bytes.byteOffset, bytes.byteOffset + bytes.byteLength);
    const metadata = parquetMetadata(buffer);
    const fields = parquetSchema(metadata).children.map(child => child.element);
    const columns = Object.fromEntries(fields.map(field => [field.name, field.logical_type?.type ?? field.type]));
    const parsers = {timestampFromMicroseconds: value => value};
    const objects = metadata.num_rows === 0n ? [] : await parquetReadObjects({file: buffer, metadata, compressors, parsers});
    const rows = objects.map(object => fields.map(field => object[field.name]));
    return {columns, rows, metadata: Object.fromEntries(metadata.key_value_metadata.map(pair => [pair.key, pair.value]))};
}

const results = [];
for (const word of words) results.push(await {query, duckdb, wasm, hyparquet}[reader](word));
console.log(JSON.stringify(results, (_, value) => typeof value === 'bigint' ? String(value) : value ?? null));
