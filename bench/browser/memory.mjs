// What processes take of the machine: memory as PSS, in which a page that several processes share counts for each by its part, and
// processor time.
// @ts-check

import fs from 'node:fs';

/** What a file of /proc says; nothing when the process has ended. @param {string} file */
function told(file) {
    try {
        return fs.readFileSync(file, 'utf8');
    } catch {
        return '';
    }
}

/** The process that has started this one. @param {number} pid */
const parentOf = (pid) => Number(/^PPid:\s+(\d+)/m.exec(told(`/proc/${pid}/status`))?.[1] ?? 0);

/** This process and all that came of it. @param {number} pid @returns {number[]} */
export function familyOf(pid) {
    const parents = new Map(fs.readdirSync('/proc').filter((name) => /^\d+$/.test(name)).map((name) => [Number(name), parentOf(Number(name))]));
    const family = [pid];
    for (const member of family) { // which grows meanwhile
        family.push(...[...parents].filter(([, parent]) => parent === member).map(([child]) => child));
    }
    return family;
}

const ticksOfSecond = 100;

/** Milliseconds of processor time so far, with that of children that have ended and were waited for. @param {number[]} pids */
export function processorMilliseconds(pids) {
    const ticks = pids.map((pid) => {
        const fields = told(`/proc/${pid}/stat`).replace(/^.*\) /, '').split(' ').map(Number);
        return fields.length < 15 ? 0 : fields[11] + fields[12] + fields[13] + fields[14];
    });
    return ticks.reduce((sum, each) => sum + each, 0) * 1000 / ticksOfSecond;
}

/** MiB. @param {number[]} pids */
export function proportionalMebibytes(pids) {
    const kibibytes = pids.map((pid) => Number(/^Pss:\s+(\d+)/m.exec(told(`/proc/${pid}/smaps_rollup`))?.[1] ?? 0));
    return kibibytes.reduce((sum, each) => sum + each, 0) / 1024;
}
