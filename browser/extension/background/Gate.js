// What becomes of a page that is asked for: goes through, is redirected, or is held back with one of our pages in its place.
//
// A main frame is cancelled and its tab sent to our page with tabs.update, as a redirection would need our pages to be open to
// every site. A frame within a page is cancelled alone. A page that is fetched in advance is held back and nothing else: nobody has
// asked for it yet. A frame whose site is warned of is held back too, until the user has gone on to that site as a page.
//
// The second line is `lookAgain`: pages that came to a tab without a request that we saw. The first page of a fresh profile is one,
// those of before an update, those out of the browser's memory, and those that a script makes of the page before.
// @ts-check

import { show } from './ownPages.js';

/** @typedef {import('./messages.js').HostDecision} HostDecision */
/** @typedef {{ url: string, type: string, tabId: number, documentLifecycle?: string }} Request */
/** @typedef {{ cancel?: boolean, redirectUrl?: string }} Verdict */

const isOfTheWeb = /^https?:/i;

/** @param {string} url */
const withoutFragment = (url) => url.split('#', 1)[0];

export class Gate {
    /** The page that each tab was let go to. @type {Map<number, string>} */
    #passed = new Map();
    /** The page that each tab was sent to ours for, until ours is there. @type {Map<number, string>} */
    #away = new Map();
    /** What each tab went to last. @type {Map<number, string>} */
    #shown = new Map();

    /**
     * @param {import('./WarnedSites.js').WarnedSites} warned
     * @param {(url: string, answer: 'none') => void} report
     * @param {(decision: HostDecision, tab: number) => void} note takes each decision on a page that is shown in a tab
     */
    constructor(warned, report, note) {
        this.warned = warned;
        this.report = report;
        this.note = note;
    }

    /** @param {Request} request @param {HostDecision} decision @returns {Verdict} */
    act(request, decision) {
        const page = this.#pageInPlaceOf(decision);
        const isShown = request.type === 'main_frame' && request.tabId >= 0 && request.documentLifecycle !== 'prerender';
        if (isShown) {
            this.note(decision, request.tabId);
        }
        if (page === null) {
            if (isShown) {
                this.#passed.set(request.tabId, withoutFragment(request.url));
            }
            return this.#letGo(request, decision);
        }
        if (isShown) {
            show(request.tabId, page, request.url);
        }
        if (page === 'blocked' && request.documentLifecycle !== 'prerender') {
            this.report(request.url, 'none');
        }
        return { cancel: true };
    }

    /** The tab has gone to another page. @param {number} tab @param {string} url */
    shows(tab, url) {
        this.#shown.set(tab, url);
    }

    /**
     * Decides on what is in a tab already, or comes to it. A tab that goes to a third page meanwhile is left alone.
     * @param {number} tab
     * @param {string} url
     * @param {(url: string) => HostDecision | Promise<HostDecision>} decide
     */
    async lookAgain(tab, url, decide) {
        if (!isOfTheWeb.test(url)) {
            this.#away.delete(tab);
            return;
        }
        if (this.#passed.get(tab) === withoutFragment(url)) {
            return;
        }
        const before = this.#shown.get(tab);
        const decision = await decide(url);
        await this.warned.loaded;
        const now = this.#shown.get(tab);
        if (now !== before && now !== url) {
            return;
        }
        const page = this.#pageInPlaceOf(decision);
        this.note(decision, tab);
        if (page === null) {
            this.#passed.set(tab, withoutFragment(url));
            return;
        }
        const isNews = this.#away.get(tab) !== url;
        this.#away.set(tab, url);
        await show(tab, page, url);
        if (page === 'blocked' && isNews) {
            this.report(url, 'none');
        }
    }

    /** The tab goes to another page, which may be the same address again. @param {number} tab */
    leaves(tab) {
        this.#passed.delete(tab);
    }

    /** @param {number} tab */
    forget(tab) {
        this.#passed.delete(tab);
        this.#away.delete(tab);
        this.#shown.delete(tab);
    }

    /** New settings: what passed by the old ones is looked at again when it comes back. */
    forgetAll() {
        this.#passed.clear();
    }

    /** @param {HostDecision} decision @returns {import('./ownPages.js').OwnPage | null} */
    #pageInPlaceOf(decision) {
        switch (decision.action) {
            case 'allow':
                return null;
            case 'warn':
                return this.warned.has(decision.url) ? null : 'warning';
            case 'block':
                return 'blocked';
            default:
                return 'waiting';
        }
    }

    /** @param {Request} request @param {HostDecision} decision @returns {Verdict} */
    #letGo(request, decision) {
        if (decision.action === 'wait') {
            return {};
        }
        if (decision.safeSearch && decision.safeSearch !== request.url) {
            return { redirectUrl: decision.safeSearch };
        }
        if (decision.action === 'allow' && decision.reporting === 'at once') {
            this.report(request.url, 'none');
        }
        return {};
    }
}
