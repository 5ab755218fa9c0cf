// What a question to the host costs by itself, from a page of the extension: the way of a page's decision in Firefox, without a load
// around it that would hide it. And a decision from memory, which is what Chromium holds a page for.
// @ts-check

import { within } from '../../tests/browser/support/deadline.mjs';

/** @typedef {{ asked: number[], decided: number[] }} Costs of one address each, ms: by asking the host, and from memory */

/**
 * @param {import('../../tests/browser/support/Browser.mjs').Tab} ownPage
 * @param {string[]} addresses
 * @returns {Promise<Costs>}
 */
export async function costsOfDecisions(ownPage, addresses) {
    const told = within(`${addresses.length} decisions`, ownPage.page.evaluate(`(async () => {
        const { HostLink } = await import('/background/HostLink.js');
        const { PageRules } = await import('/decision/PageRules.js');
        const { Ratings } = await import('/decision/Ratings.js');
        const addresses = ${JSON.stringify(addresses)};
        let rules = null;
        let ratings = null;
        let arrived = () => {};
        const all = new Promise((done) => { arrived = () => rules && ratings && done(); });
        const link = new HostLink('chromium', true, {
            settings: (message) => { rules = message.rules && new PageRules(message.rules); arrived(); },
            ratings: (message) => { ratings = new Ratings(message); arrived(); },
            changed: () => {},
        });
        link.connect();
        await all;
        const asked = [];
        for (const address of addresses) {
            const begin = performance.now();
            await link.decide(address, 'main', 5000);
            asked.push(performance.now() - begin);
        }
        // A browser's clock is coarse: each address is decided often enough for it.
        const often = 50;
        const decided = addresses.map((address) => {
            const begin = performance.now();
            for (let turn = 0; turn < often; ++turn) {
                rules.decide(address, (url) => ratings.standingOf(url));
            }
            return (performance.now() - begin) / often;
        });
        return JSON.stringify({ asked, decided });
    })()`), 60000);
    return JSON.parse(String(await told));
}
