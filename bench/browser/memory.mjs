// What processes hold of the machine's memory: PSS, in which a page that several processes share counts for each by its part.
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

/** MiB. @param {number[]} pids */
export function proportionalMebibytes(pids) {
    const kibibytes = pids.map((pid) => Number(/^Pss:\s+(\d+)/m.exec(told(`/proc/${pid}/smaps_rollup`))?.[1] ?? 0));
    return kibibytes.reduce((sum, each) => sum + each, 0) / 1024;
}
