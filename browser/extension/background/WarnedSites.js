// The sites that the user went on to when warned. They hold as long as the browser runs, also when this program is restarted.
// @ts-check

const place = 'wentOn';

export class WarnedSites {
    /** @type {Set<string>} */
    #sites = new Set();
    /** Until this is there, nobody is taken to have gone on. */
    loaded = chrome.storage.session.get(place).then((kept) => {
        for (const site of /** @type {string[]} */ (kept[place] ?? [])) {
            this.#sites.add(site);
        }
    });

    /** @param {string} url */
    has(url) {
        return this.#sites.has(siteOf(url));
    }

    /** @param {string} url */
    async add(url) {
        await this.loaded;
        this.#sites.add(siteOf(url));
        await chrome.storage.session.set({ [place]: [...this.#sites] });
    }
}

/** Scheme, host and port: what a user takes for one site, and no other can pretend to be. @param {string} url */
function siteOf(url) {
    return new URL(url).origin;
}
