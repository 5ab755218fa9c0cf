// How our pages look: names for a screen reader, contrast in light and dark, and pictures of them when SENTREL_PICTURES names a
// directory. Only Chromium can be told the colours; Firefox is looked at in those that it has.
// @ts-check

import assert from 'node:assert/strict';
import path from 'node:path';

const pictures = process.env.SENTREL_PICTURES;
const enoughContrast = 4.5;

/** The least contrast between a visible text and the ground behind it, worked out in the page. */
const leastContrast = `(() => {
    const parts = (color) => color.match(/[\\d.]+/g).map(Number);
    const light = (color) => parts(color).slice(0, 3).map((c) => c / 255)
        .map((c) => (c <= 0.03928 ? c / 12.92 : ((c + 0.055) / 1.055) ** 2.4))
        .reduce((sum, c, i) => sum + c * [0.2126, 0.7152, 0.0722][i], 0);
    const ground = (element) => {
        for (let at = element; at; at = at.parentElement) {
            const color = getComputedStyle(at).backgroundColor;
            if ((parts(color)[3] ?? 1) > 0) return color;
        }
        return 'rgb(255, 255, 255)';
    };
    let least = 21;
    for (const element of document.querySelectorAll('h1, h2, p, button, label, textarea, dt, dd, th, td')) {
        if ((element.value ?? element.textContent).trim() === '' || element.hidden) continue;
        const [a, b] = [light(getComputedStyle(element).color), light(ground(element))];
        least = Math.min(least, (Math.max(a, b) + 0.05) / (Math.min(a, b) + 0.05));
    }
    return least;
})()`;

/** What a screen reader could not tell, worked out in the page. */
const unnamed = `[
    ...[...document.querySelectorAll('button:not([hidden])')].filter((button) => button.innerText.trim() === '').map((button) => button.id),
    ...[...document.querySelectorAll('textarea')].filter(({ labels }) => !labels[0]?.innerText).map(({ id }) => id),
    ...(document.title === '' ? ['title'] : []),
    ...(document.documentElement.lang === '' ? ['lang'] : []),
    ...(document.querySelectorAll('main').length === 1 ? [] : ['main']),
    ...(document.querySelectorAll('h1').length === 1 && document.querySelector('h1').innerText !== '' ? [] : ['h1']),
]`;

/**
 * Looks at one of our pages as a user does who reads badly or not at all.
 * @param {import('./Browser.mjs').Tab} tab
 * @param {string} name of its pictures
 * @param {import('./Browser.mjs').BrowserName} browserName
 */
export async function lookAt(tab, name, browserName) {
    assert.deepEqual(await tab.ask(unnamed), []);
    await tab.page.bringToFront(); // a tab behind others is not painted
    for (const theme of browserName === 'chromium' ? ['light', 'dark'] : ['']) {
        if (theme !== '') {
            await tab.page.emulateMediaFeatures([{ name: 'prefers-color-scheme', value: theme }]);
        }
        const contrast = await tab.ask(leastContrast);
        assert.ok(contrast >= enoughContrast, `contrast ${contrast} in ${theme || 'its own colours'}`);
        if (theme !== '' && pictures) {
            await tab.page.screenshot({ path: /** @type {`${string}.png`} */ (path.join(pictures, `${name}-${theme}.png`)) });
        }
    }
}
