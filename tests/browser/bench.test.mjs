// What bench/browser/run measures with: its figures are right, and a brief run of it comes to its end with all of its tables.
// @ts-check

import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import { test } from 'node:test';
import { fileURLToPath } from 'node:url';
import { boundsOfMedian, median, pairwiseBeyond, quantile, table } from '../../bench/browser/figures.mjs';
import { familyOf, processorMilliseconds, proportionalMebibytes } from '../../bench/browser/memory.mjs';
import { browsers } from './support/Browser.mjs';

const pageLoads = fileURLToPath(new URL('../../bench/browser/pageLoads.mjs', import.meta.url));
const hundred = Array.from({ length: 100 }, (_, at) => 100 - at);

test('The median is the middle value, or lies between the two in the middle', () => {
    assert.equal(median([9, 1, 5]), 5);
    assert.equal(median([9, 1, 5, 7]), 6);
});

test('The 99th percentile is what one of a hundred values exceeds', () => {
    assert.equal(quantile(hundred, 0.99), 99);
    assert.equal(quantile([3], 0.99), 3);
});

test('The bounds of the median are values as far from the middle as chance can bring it', () => {
    assert.deepEqual(boundsOfMedian(hundred), [41, 61]);
    assert.deepEqual(boundsOfMedian([2, 1]), [1, 2]);
});

test('What a page pays is told page by page', () => {
    assert.deepEqual(pairwiseBeyond([12, 31], [10, 30]), [2, 1]);
});

test('A table has a line for its columns, one below them, and one for each row', () => {
    assert.equal(table(['a', 'b'], [['1', '2']]), '| a | b |\n|---|---|\n| 1 | 2 |');
});

test('The memory of a process is some of the machine\'s, and its family has it first', () => {
    assert.equal(familyOf(process.pid)[0], process.pid);
    const mebibytes = proportionalMebibytes([process.pid]);
    assert.ok(mebibytes > 1 && mebibytes < 4096, `${mebibytes}`);
});

test('The processor time of a process is what it has used', () => {
    const used = process.cpuUsage();
    assert.ok(Math.abs(processorMilliseconds([process.pid]) - (used.user + used.system) / 1000) < 100);
});

for (const name of browsers) {
    test(`A brief run of the bench tells what a page pays, what memory is held and what a question costs, in ${name}`, { timeout: 240000 }, () => {
        const done = spawnSync(process.execPath, [pageLoads, '--brief', name], { encoding: 'utf8', timeout: 230000 });
        assert.equal(done.status, 0, done.stderr);
        const rows = done.stdout.split('\n').filter((line) => line.startsWith('| '));
        const rowsOf = (/** @type {string} */ start) => rows.filter((row) => row.startsWith(`| ${start}`)).length;
        // In the tables of the page's clock, of the driver's, of processor time, and of memory.
        for (const variant of ['bare |', 'bare, a second one |', '10 entries |', '1,000 entries, 10,000 rated hosts |']) {
            assert.equal(rowsOf(variant), 4, `${variant} in ${done.stdout}`);
        }
        assert.equal(rowsOf(`${name}, `), 2, done.stdout);
        assert.doesNotMatch(done.stdout, /NaN|undefined|Infinity/);
    });
}
