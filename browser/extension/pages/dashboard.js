// What was decided in this browser: over time, by site and by reason. Everything comes from the extension's own store.
// @ts-check

import { History } from '../background/History.js';
import { byId, fillTexts, text } from './common.js';

/** @typedef {import('../background/History.js').Hour} Hour */
/** @typedef {import('../background/History.js').Held} Held */
/** A stretch of time: so many steps of so many hours, the last one being the present.
 * @typedef {{ steps: number, hours: number, format: Intl.DateTimeFormatOptions, text: string }} Stretch */

const mostSites = 10;
/** @type {Record<string, Stretch>} */
const stretches = {
    day: { steps: 24, hours: 1, format: { hour: '2-digit', minute: '2-digit' }, text: 'lastDay' },
    month: { steps: 30, hours: 24, format: { month: 'short', day: 'numeric' }, text: 'lastMonth' },
};
const kinds = /** @type {const} */ (['allow', 'warn', 'block']);
/** @type {Record<string, string>} */
const kindTexts = { allow: 'kindAllow', warn: 'kindWarn', block: 'kindBlock' };
/** @type {Record<string, string>} */
const kindColors = { allow: '--calm', warn: '--care', block: '--stop' };
/** @type {Record<string, string>} */
const reasonTexts = {
    list: 'reasonList', category: 'reasonCategory', phishing: 'reasonPhishing', reachability: 'reasonReachability', rating: 'reasonRating',
};

const history = new History();
let stretch = stretches.day;
/** @type {any} */
let chart;

/** The first moments of the steps. By days they begin at midnight here. @param {Stretch} from */
function beginsOf({ steps, hours }) {
    const last = new Date();
    last.setMinutes(0, 0, 0);
    if (hours === 24) {
        last.setHours(0);
    }
    return Array.from({ length: steps }, (_, step) => {
        const begin = new Date(last);
        begin.setHours(begin.getHours() - hours * (steps - 1 - step));
        return begin.getTime();
    });
}

/** How many of each kind fell into each step. @param {Hour[]} hours @param {number[]} begins */
function countsIn(hours, begins) {
    const counts = { allow: begins.map(() => 0), warn: begins.map(() => 0), block: begins.map(() => 0) };
    for (const hour of hours) {
        const step = begins.findLastIndex((begin) => begin <= hour.hour);
        for (const kind of step < 0 ? [] : kinds) {
            counts[kind][step] += hour[kind];
        }
    }
    return counts;
}

/** @param {string} name */
function color(name) {
    return getComputedStyle(document.body).getPropertyValue(name).trim();
}

/** @param {string[]} labels @param {Record<string, number[]>} counts */
function draw(labels, counts) {
    chart?.destroy();
    const scale = { stacked: true, grid: { color: color('--line') }, ticks: { color: color('--quiet'), precision: 0, maxRotation: 0 } };
    const Chart = /** @type {any} */ (globalThis).Chart;
    chart = new Chart(byId('chart'), {
        type: 'bar',
        data: {
            labels,
            datasets: kinds.map((kind) => ({ label: text(kindTexts[kind]), data: counts[kind], backgroundColor: color(kindColors[kind]) })),
        },
        options: {
            animation: false,
            maintainAspectRatio: false,
            scales: { x: { ...scale, grid: { display: false } }, y: { ...scale, beginAtZero: true } },
            plugins: { legend: { position: 'bottom', labels: { color: color('--text'), boxWidth: 14 } } },
        },
    });
}

/** Rows of a name, a bar and a number, the largest first. @param {string} id @param {Map<string, number>} counts */
function showTable(id, counts) {
    const rows = [...counts].sort(([, a], [, b]) => b - a).slice(0, mostSites);
    const most = rows[0]?.[1] ?? 1;
    byId(id).replaceChildren(...rows.map(([name, count]) => {
        const row = document.createElement('tr');
        const head = document.createElement('th');
        head.scope = 'row';
        head.textContent = name;
        const bar = document.createElement('meter');
        bar.max = most;
        bar.value = count;
        bar.setAttribute('aria-hidden', 'true');
        const barCell = document.createElement('td');
        barCell.append(bar);
        const number = document.createElement('td');
        number.textContent = count.toLocaleString();
        row.append(head, barCell, number);
        return row;
    }));
    if (rows.length === 0) {
        const row = document.createElement('tr');
        const cell = document.createElement('td');
        cell.textContent = text('nothingYet');
        row.append(cell);
        byId(id).append(row);
    }
}

/** @param {string[]} names @returns {Map<string, number>} */
function tally(names) {
    const counts = new Map();
    for (const name of names) {
        counts.set(name, (counts.get(name) ?? 0) + 1);
    }
    return counts;
}

async function show() {
    const { hours, held } = await history.read();
    const begins = beginsOf(stretch);
    const counts = countsIn(hours, begins);
    const sum = (/** @type {number[]} */ numbers) => numbers.reduce((all, each) => all + each, 0).toLocaleString();
    const sums = kinds.map((kind) => sum(counts[kind]));
    byId('sum').textContent = text('dashboardSum', text(stretch.text), ...sums);
    const format = new Intl.DateTimeFormat(undefined, stretch.format);
    draw(begins.map((begin) => format.format(begin)), counts);
    const recent = held.filter(({ time }) => time >= begins[0]);
    showTable('sites', tally(recent.filter(({ action }) => action === 'block').map(({ site }) => site)));
    showTable('reasons', tally(recent.map(({ by }) => text(reasonTexts[by] ?? 'reasonRating'))));
    for (const [name, each] of Object.entries(stretches)) {
        byId(name).setAttribute('aria-pressed', String(each === stretch));
    }
    document.documentElement.dataset.state = 'told';
}

fillTexts();
for (const [name, each] of Object.entries(stretches)) {
    byId(name).addEventListener('click', () => {
        stretch = each;
        show();
    });
}
byId('clear').addEventListener('click', () => history.clear().then(show));
matchMedia('(prefers-color-scheme: dark)').addEventListener('change', show);
document.addEventListener('visibilitychange', () => document.hidden || show());
show();
