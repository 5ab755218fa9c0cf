// What does a page's load pay for the extension?
//
// In one run, for each browser: loads of pages of a usual weight, each of another host, in four browsers that run at the same time and
// take turns page by page, in each order as often: a bare one, a second bare one, one with a list of ten entries, one with a list of a
// hundred thousand and a million rated hosts. What the machine does besides comes to all four. The figure is the median of what a
// page pays beyond the bare browser's load of the same page, with its bounds; what the second bare one pays says what that can show.
// Then what a question to the host costs without a load around it, and the memory of all of them.
//
// Usage: pageLoads.mjs [--brief] [--pages N] [--answers MS] [firefox|chromium]
// @ts-check

import fs from 'node:fs';
import { parseArgs } from 'node:util';
import { browsers, TestBrowser } from '../../tests/browser/support/Browser.mjs';
import { awaitThat, within } from '../../tests/browser/support/deadline.mjs';
import { Machine } from '../../tests/browser/support/Machine.mjs';
import { visit } from '../../tests/browser/support/outcomes.mjs';
import { writeSettings } from '../../tests/browser/support/settingsFile.mjs';
import { boundsOfMedian, median, pairwiseBeyond, quantile, table } from './figures.mjs';
import { startHeavySite } from './HeavySite.mjs';
import { familyOf, processorMilliseconds, proportionalMebibytes } from './memory.mjs';
import { costsOfDecisions } from './roundTrips.mjs';

/** @typedef {import('../../tests/browser/support/Browser.mjs').BrowserName} BrowserName */
/** @typedef {import('../../tests/browser/support/Browser.mjs').Tab} Tab */
/** @typedef {import('../../tests/browser/support/WebSite.mjs').WebSite} WebSite */
/** What is compared, by a name that the tables show; without entries it is a bare browser.
 * @typedef {{ name: string, entries?: number, ratedHosts?: number }} Variant */
/** A variant's browser, its machine, its tab, and how long each page took, in ms: as the page tells, and as its driver saw it.
 * @typedef {{ variant: Variant, machine: Machine, browser: TestBrowser, tab: Tab, loads: number[], seen: number[],
 * processor: number }} Contender processor: ms that it had used when the pages that count began */

/** As the settings file has it. */
const blocks = 1;
const limitMilliseconds = 2;
const limitPart = 0.01;
/** Each of the orders in which four take turns that puts each of them at each place, and behind each other one, as often. */
const orders = [[0, 1, 2, 3], [1, 3, 0, 2], [2, 0, 3, 1], [3, 2, 1, 0]];

const { values: options, positionals } = parseArgs({
    options: { brief: { type: 'boolean' }, pages: { type: 'string' }, answers: { type: 'string', default: '20' } },
    allowPositionals: true,
});
const pages = Number(options.pages ?? (options.brief ? 4 : 400));
/** @type {Variant[]} */
const variants = [
    { name: 'bare' },
    { name: 'bare, a second one' },
    { name: '10 entries', entries: 10, ratedHosts: 0 },
    options.brief ? { name: '1,000 entries, 10,000 rated hosts', entries: 1000, ratedHosts: 10_000 }
        : { name: '100,000 entries, 1,000,000 rated hosts', entries: 100_000, ratedHosts: 1_000_000 },
];

/** Half of the hosts are rated, where there are ratings. @param {number} page */
const hostOf = (page) => (page % 2 === 0 ? `rated-${page}.example` : `www.page-${page}.example`);

/** @param {string} text */
const say = (text) => process.stdout.write(`${text}\n`);

/** A list that names none of the pages but the last host. @param {Machine} machine @param {number} entries */
function putEntries(machine, entries) {
    const some = Array.from({ length: entries - 1 }, (_, at) => ({
        action: at % 2, text: `${at % 3 === 0 ? '*.' : ''}listed-${at}.example${at % 5 === 0 ? '/a/folder' : ''}`,
    }));
    writeSettings(machine.settingsFile, {
        numbers: {}, categories: [], ranges: ['10.0.0.0/8', '172.16.0.0/12', '192.168.0.0/16'], entries: [...some, { action: blocks, text: 'last.example' }],
    });
}

/** @param {Machine} machine @param {number} hosts */
function putRatings(machine, hosts) {
    const file = `${machine.root}/rated.txt`;
    fs.writeFileSync(file, Array.from({ length: hosts }, (_, at) => `rated-${at}.example\n`).join(''));
    machine.ctl('ratings', 'import', 'safe', file, '--format', 'domains', '--rating', '0');
    fs.writeFileSync(file, 'rated-last.example\n');
    machine.ctl('ratings', 'import', 'dangers', file, '--format', 'domains', '--rating', '60');
}

/** @param {BrowserName} name @param {Variant} variant @param {Machine} machine @param {WebSite} site @returns {Promise<Contender>} */
async function start(name, variant, machine, site) {
    const isBare = variant.entries === undefined;
    const browser = await TestBrowser.ready(name, machine, site.port, {
        extension: isBare ? 'none' : 'installed',
        preferences: { 'privacy.reduceTimerPrecision': false }, // a millisecond's parts count here
    });
    const tab = await browser.tab();
    const blocked = isBare ? [] : ['http://last.example/', ...(variant.ratedHosts ? ['http://rated-last.example/'] : [])];
    for (const address of blocked) {
        await awaitThat(`${name} with ${variant.name} to block ${address}`, async () => (await visit(tab, address)) === 'blocked', 60000);
    }
    return { variant, machine, browser, tab, loads: [], seen: [], processor: 0 };
}

/** @param {Contender} contender @param {number} page @param {boolean} counts */
async function load({ tab, loads, seen }, page, counts) {
    const address = `http://${hostOf(page)}/page`;
    const begin = performance.now();
    await within(`a load of ${address}`, tab.page.goto(address, { waitUntil: 'load', timeout: 30000 }), 30000);
    const end = performance.now();
    const told = await tab.ask(`performance.getEntriesByType('navigation')[0].loadEventStart`);
    if (await tab.address() !== address || !(told > 0)) {
        throw new Error(`${address} was not opened, but ${await tab.address()}`);
    }
    if (counts) {
        loads.push(told);
        seen.push(end - begin);
    }
}

/** With the host that it has started. @param {Contender} contender */
const processesOf = ({ browser }) => familyOf(browser.tabs.process()?.pid ?? 0);

/** The first pages of each browser are not counted. @param {Contender[]} contenders */
async function loadInTurns(contenders) {
    const warmUp = options.brief ? 1 : 10;
    for (let page = 0; page < warmUp + pages; ++page) {
        if (page === warmUp) {
            contenders.forEach((contender) => { contender.processor = processorMilliseconds(processesOf(contender)); });
        }
        for (const place of orders[page % orders.length]) {
            await load(contenders[place], page, page >= warmUp);
        }
    }
}

const milliseconds = (/** @type {number} */ value) => `${value.toFixed(2)} ms`;
const ratio = (/** @type {number} */ value) => value.toFixed(3);

/** @param {Contender[]} contenders @param {(contender: Contender) => number[]} timesOf */
function loadRows(contenders, timesOf) {
    const bare = timesOf(contenders[0]);
    return contenders.map((contender) => {
        const times = timesOf(contender);
        const beyond = pairwiseBeyond(times, bare);
        const [low, high] = boundsOfMedian(beyond);
        const half = median(times);
        const late = quantile(times, 0.99);
        const isBare = contender === contenders[0];
        return [contender.variant.name, milliseconds(half), ratio(half / median(bare)), milliseconds(late), ratio(late / quantile(bare, 0.99)),
            ...(isBare ? ['-', '-', '-', '-'] : [`${milliseconds(median(beyond))} (${low.toFixed(2)} to ${high.toFixed(2)})`,
                `${limitMilliseconds} ms`, `${(100 * median(beyond) / median(bare)).toFixed(2)} %`, `${100 * limitPart} %`])];
    });
}

/** What a page takes of the processors, with all that a browser does meanwhile; who else wants them changes little of it.
 * @param {Contender[]} contenders */
function processorRows(contenders) {
    const each = contenders.map((contender) => (processorMilliseconds(processesOf(contender)) - contender.processor) / pages);
    return contenders.map(({ variant }, at) => [variant.name, `${each[at].toFixed(1)} ms`, `${(each[at] - each[0]).toFixed(1)} ms`, ratio(each[at] / each[0])]);
}

/** @param {BrowserName} name @param {Contender} contender */
async function decisionRow(name, { variant, tab }) {
    await visit(tab, 'http://last.example/');
    await tab.awaitOwnPage('blocked');
    const addresses = Array.from({ length: options.brief ? 20 : 2000 }, (_, at) => `http://${hostOf(at)}/page`);
    const { asked, decided } = await costsOfDecisions(tab, addresses);
    return [`${name}, ${variant.name}`, milliseconds(median(asked)), milliseconds(quantile(asked, 0.99)), `${limitMilliseconds} ms`,
        ratio(median(asked) / limitMilliseconds), `${(1000 * median(decided)).toFixed(1)} us`, `${(1000 * quantile(decided, 0.99)).toFixed(1)} us`];
}

/** @param {Contender[]} contenders @returns {string[][]} */
function memoryRows(contenders) {
    const weights = contenders.map((contender) => {
        const { variant, machine } = contender;
        const hosts = variant.entries === undefined ? [] : machine.hostProcesses();
        const family = processesOf(contender).filter((pid) => !hosts.includes(pid));
        return { variant, browser: proportionalMebibytes(family), host: proportionalMebibytes(hosts) };
    });
    return weights.map(({ variant, browser, host }) => [variant.name, `${browser.toFixed(0)} MiB`, `${(browser - weights[0].browser).toFixed(0)} MiB`,
        ratio(browser / weights[0].browser), host === 0 ? '-' : `${host.toFixed(1)} MiB`]);
}

/** @param {BrowserName} name @param {Machine[]} machines one for each variant with the extension @param {WebSite} site */
async function measure(name, machines, site) {
    /** @type {Contender[]} */
    const contenders = [];
    try {
        for (const variant of variants) {
            contenders.push(await start(name, variant, variant.ratedHosts ? machines[1] : machines[0], site));
        }
        await loadInTurns(contenders);
        const processor = processorRows(contenders);
        const heads = ['p50', 'by bare', 'p99', 'by bare', 'a page pays (95 %)', 'limit', 'of its load', 'limit'];
        say(`\n${table([`${name}: load as the page tells`, ...heads], loadRows(contenders, ({ loads }) => loads))}`);
        say(`\n${table([`${name}: load as the driver sees it`, ...heads], loadRows(contenders, ({ seen }) => seen))}`);
        say(`\n${table([`${name}: processor time of a page`, 'used', 'beyond bare', 'by bare'], processor)}`);
        say(`\n${table([`${name}: memory (PSS)`, 'browser', 'beyond bare', 'by bare', 'host'], memoryRows(contenders))}`);
        const decisions = [];
        for (const contender of contenders.filter(({ variant }) => variant.entries !== undefined)) {
            decisions.push(await decisionRow(name, contender));
        }
        say(`\n${table(['a decision alone', 'asking the host, p50', 'p99', 'limit', 'ratio', 'from memory, p50', 'p99'], decisions)}`);
    } finally {
        for (const { browser } of contenders) {
            await browser.close();
        }
    }
}

async function run() {
    const chosen = positionals.length > 0 ? /** @type {BrowserName[]} */ (positionals) : browsers;
    const site = await startHeavySite(Number(options.answers));
    /** @type {Machine[]} */
    const machines = [];
    try {
        for (const { entries, ratedHosts } of variants) {
            if (entries !== undefined) {
                const machine = await Machine.started();
                machines.push(machine);
                putEntries(machine, entries);
                if (ratedHosts) {
                    putRatings(machine, ratedHosts);
                }
            }
        }
        say(`${pages} pages, each in ${variants.length} browsers in turns; the web answers after ${options.answers} ms`);
        for (const name of chosen) {
            await measure(name, machines, site);
        }
    } finally {
        for (const machine of machines) {
            await machine.remove();
        }
        await site.stop();
    }
}

await run();
