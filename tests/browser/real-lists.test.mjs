// The lists that Debian's package of an advertisement blocker has, brought in as they are: what an administrator would begin with.
//
// The package is fetched and opened, and never installed: the browsers of the other tests would run it. Every file of its lists is
// looked at, so that a list of another form shows. Without a mirror this fails, as then nothing of it has been seen.
// @ts-check

import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import fs from 'node:fs';
import path from 'node:path';
import { after, before, describe, test } from 'node:test';
import { fileURLToPath } from 'node:url';
import { Machine } from './support/Machine.mjs';

const debian = 'webext-ublock-origin-firefox';
const countHosts = fileURLToPath(new URL('support/count-hosts', import.meta.url));

/** @typedef {{ file: string, format: string | null, hosts: number, known: string | null }} RealList */

/** @param {string} program @param {string[]} words @param {string} directory */
function run(program, words, directory) {
    return spawnSync(program, words, { cwd: directory, encoding: 'utf8', timeout: 180000 });
}

/** Fetches the package and opens it. @param {string} directory */
function fetchPackage(directory) {
    const fetch = () => run('apt-get', ['-qq', '-o', 'APT::Sandbox::User=root', '-o', 'Acquire::Retries=2', 'download', debian], directory);
    let done = fetch();
    if (done.status !== 0) { // an index that was never fetched, or is too old
        run('apt-get', ['-qq', 'update'], directory);
        done = fetch();
    }
    const file = fs.readdirSync(directory).find((name) => name.startsWith(debian));
    assert.ok(done.status === 0 && file, `the package ${debian} cannot be fetched, so no real list was tried. `
        + `Is there a network, and a mirror of Debian in apt's sources? apt-get says: ${done.stderr}`);
    const opened = run('dpkg-deb', ['-x', file, 'opened'], directory);
    assert.equal(opened.status, 0, opened.stderr);
}

/** Every file of the package's lists, and what it names by its own text. @param {string} directory @returns {RealList[]} */
function listsBelow(directory) {
    const files = fs.readdirSync(directory, { recursive: true, encoding: 'utf8' }).map((name) => path.join(directory, name));
    return files.filter((file) => file.includes('/assets/') && fs.lstatSync(file).isFile()).map((file) => {
        const counted = run(countHosts, [file], directory);
        assert.equal(counted.status, 0, counted.stderr);
        return { file, ...JSON.parse(counted.stdout) };
    });
}

/** @param {string} file what the list is called here */
const nameOf = (file) => path.basename(file, '.txt');

describe('Real lists', () => {
    /** @type {Machine} */
    let machine;
    /** @type {RealList[]} */
    let all = [];
    /** @type {RealList[]} */
    let lists = [];
    before(async () => {
        machine = await Machine.started();
        const directory = path.join(machine.root, 'fetched');
        fs.mkdirSync(directory);
        fetchPackage(directory);
        all = listsBelow(path.join(directory, 'opened'));
        lists = all.filter((list) => list.format !== null);
    });
    after(async () => {
        await machine?.remove();
    });

    test('are all of a form that can be brought in, but for what is no list of hosts', () => {
        const others = all.filter((list) => list.format === null).map((list) => path.basename(list.file));
        assert.deepEqual(others.sort(), ['LICENSE.md', 'assets.json', 'badlists.txt', 'effective_tld_names.dat']);
        assert.ok(lists.length >= 4, `${lists.length} lists`);
        assert.ok(lists.some((list) => list.hosts > 10000), 'no list is long');
    });

    test('have as many hosts as their text names, and no bad line', () => {
        for (const list of lists) {
            const done = machine.tryCtl(['ratings', 'import', nameOf(list.file), list.file, '--format', list.format ?? '', '--rating', '60', '--json=short']);
            assert.equal(done.status, 0, done.stderr);
            const { count, bad, bad_lines: badLines } = JSON.parse(done.stdout);
            assert.deepEqual({ count, bad, badLines }, { count: list.hosts, bad: 0, badLines: [] }, list.file);
            assert.equal(done.stderr, '');
            console.log(`${nameOf(list.file)}: ${count} hosts, format ${list.format}`);
        }
    });

    test('decide on the hosts that they name, and on no other', () => {
        for (const list of lists) {
            const { action, decided_by: decidedBy } = JSON.parse(machine.ctl('check', `http://${list.known}/`, '--json=short'));
            assert.deepEqual([action, decidedBy], ['block', 'rating'], `${list.known} of ${list.file}`);
            const { lists: naming } = JSON.parse(machine.ctl('ratings', 'show', list.known ?? '', '--json=short'));
            assert.ok(naming.includes(nameOf(list.file)), `${list.known} is in ${naming}`);
        }
        assert.equal(JSON.parse(machine.ctl('check', 'http://www.debian.org/', '--json=short')).action, 'allow');
    });
});
