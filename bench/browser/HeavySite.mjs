// A web whose pages weigh what pages weigh: 0.9 MB in 25 files, and a frame from another site with two more of its own. Every host
// has the same page, so that each load may go to another host and nothing comes out of a browser's memory. Most of the weight is
// text that costs little to read: what a browser computes for a page is no longer than it must be, and hides little.
// @ts-check

import { WebSite } from '../../tests/browser/support/WebSite.mjs';

const images = 16;
const scripts = 5;
const styles = 3;
const numbersUpTo = (/** @type {number} */ count) => Array.from({ length: count }, (_, at) => at);

/** @param {number} bytes */
const filling = (bytes) => 'What is written here is only read over. '.repeat(bytes / 40);

/** @param {number} seed @param {number} count */
const shapes = (seed, count) => numbersUpTo(count).map((at) => {
    const place = (/** @type {number} */ factor) => ((seed + at) * factor) % 300;
    return `<rect x="${place(37)}" y="${place(53)}" width="${10 + (at % 30)}" height="9" fill="#${((seed * at * 2654435) % 0xfff + 0x1000).toString(16).slice(-3)}"/>`;
}).join('\n');

/** @param {number} seed */
const image = (seed) => `<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 300 300" width="150" height="150">${shapes(seed, 20)}<!--${filling(16_000)}--></svg>`;

/** @param {number} seed */
const script = (seed) => numbersUpTo(100).map((at) => `function part${seed}_${at}(a, b) { const sum = a * ${at} + b; return sum > 10 ? [sum] : { sum, b }; }`)
    .concat(`document.documentElement.dataset.part${seed} = JSON.stringify(part${seed}_1(2, 3));`, `/*${filling(90_000)}*/`).join('\n');

/** @param {number} seed */
const style = (seed) => numbersUpTo(100).map((at) => `.kind${seed}-${at} > p { margin: ${at % 20}px; color: #${(at + 0x100).toString(16).slice(-3)}; }`)
    .concat(`/*${filling(25_000)}*/`).join('\n');

const paragraphs = numbersUpTo(60).map((at) => `<div class="kind${at % styles}-${at}"><p>${'A page has words in it, more than are read. '.repeat(6)}</p></div>`)
    .join('\n');

const frame = `<!doctype html><title>frame</title><script src="/script-0.js"></script><p>${'Beside the page. '.repeat(200)}</p><img src="/image-0.svg">`;

/** @param {string} host */
const page = (host) => `<!doctype html><title>${host}</title>
${numbersUpTo(styles).map((at) => `<link rel="stylesheet" href="/style-${at}.css">`).join('\n')}
${numbersUpTo(scripts).map((at) => `<script src="/script-${at}.js" defer></script>`).join('\n')}
${numbersUpTo(images).map((at) => `<img src="/image-${at}.svg" width="150" height="150" alt="">`).join('\n')}
<iframe src="http://beside.${host}/frame" width="300" height="200"></iframe>
${paragraphs}`;

/** @param {number} milliseconds how long each answer takes */
export async function startHeavySite(milliseconds) {
    const site = await WebSite.started();
    site.milliseconds = milliseconds;
    const add = (/** @type {string} */ path, /** @type {string} */ type, /** @type {string} */ text) => site.everywhere(path, (response) => {
        response.setHeader('content-type', type);
        response.end(text);
    });
    numbersUpTo(images).forEach((at) => add(`/image-${at}.svg`, 'image/svg+xml', image(at)));
    numbersUpTo(scripts).forEach((at) => add(`/script-${at}.js`, 'text/javascript', script(at)));
    numbersUpTo(styles).forEach((at) => add(`/style-${at}.css`, 'text/css', style(at)));
    add('/frame', 'text/html; charset=utf-8', frame);
    site.everywhere('/page', (response, host) => {
        response.setHeader('content-type', 'text/html; charset=utf-8');
        response.end(page(host));
    });
    return site;
}
