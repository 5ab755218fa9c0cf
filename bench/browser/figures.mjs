// What is made of many measurements: quantiles, a middle with its bounds, and the lines of a table.
// @ts-check

/** @param {number[]} values */
const inOrder = (values) => [...values].sort((a, b) => a - b);

/** The smallest value that this part of all values does not exceed. @param {number[]} values @param {number} part 0 to 1 */
export function quantile(values, part) {
    const sorted = inOrder(values);
    return sorted[Math.max(0, Math.ceil(part * sorted.length) - 1)];
}

/** The middle of the values; of an even number of them the mean of the two in the middle. @param {number[]} values */
export function median(values) {
    const sorted = inOrder(values);
    const middle = sorted.length / 2;
    return (sorted[Math.ceil(middle) - 1] + sorted[Math.floor(middle)]) / 2;
}

/** Between which the median of what was sampled lies, with 95 %: by the ranks, so whatever the distribution is.
 * @param {number[]} values @returns {[number, number]} */
export function boundsOfMedian(values) {
    const sorted = inOrder(values);
    const half = 0.98 * Math.sqrt(sorted.length);
    const low = Math.floor(sorted.length / 2 - half);
    const high = Math.ceil(sorted.length / 2 + half);
    return [sorted[Math.max(0, low)], sorted[Math.min(sorted.length - 1, high)]];
}

/** What each value has beyond the one at the same place. @param {number[]} values @param {number[]} bare */
export const pairwiseBeyond = (values, bare) => values.map((value, at) => value - bare[at]);

/** A table of these columns, as text. @param {string[]} columns @param {string[][]} rows */
export function table(columns, rows) {
    const line = (/** @type {string[]} */ cells) => `| ${cells.join(' | ')} |`;
    return [line(columns), `|${'---|'.repeat(columns.length)}`, ...rows.map(line)].join('\n');
}
