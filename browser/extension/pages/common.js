// What our pages share: their texts, their questions to the background, and how a decision is put into words.
// @ts-check

/** @typedef {import('../background/messages.js').HostDecision} HostDecision */
/** @typedef {import('../background/messages.js').PageAnswer} PageAnswer */
/** @typedef {import('../background/messages.js').PageQuestion} PageQuestion */
/** @typedef {import('../background/messages.js').State} State */
/** @typedef {import('../decision/PageRules.js').Decision} Decision */
/** A line of the list of facts: the key of its name, and what it says.
 * @typedef {[string, string]} Fact */

/** @param {string} key @param {...string} values */
export function text(key, ...values) {
    return chrome.i18n.getMessage(key, values);
}

/** @param {string} id */
export function byId(id) {
    return /** @type {HTMLElement} */ (document.getElementById(id));
}

/** The page of the web that this one stands for. */
export const pageAddress = new URLSearchParams(location.search).get('url') ?? '';

/** Puts in the texts that the page names, and lets a screen reader begin with the heading. */
export function fillTexts() {
    for (const element of document.querySelectorAll('[data-text]')) {
        element.textContent = text(element.getAttribute('data-text') ?? '');
    }
    const address = document.getElementById('address');
    if (address) {
        address.textContent = pageAddress;
        byId('title').focus();
    }
}

/** @param {PageQuestion} question @returns {Promise<any>} */
export function ask(question) {
    return chrome.runtime.sendMessage(question);
}

/** How soon it is asked again when nothing could be said. */
const nextLook = 1000; // ms

/**
 * Shows what the background says, now and whenever that may have changed. While it cannot say anything, or is being started and
 * answers nobody, it is asked again.
 * @param {PageQuestion} question
 * @param {(answer: any) => void} show
 */
export function keepShowing(question, show) {
    /** @type {ReturnType<typeof setTimeout> | undefined} */
    let timer;
    const look = async () => {
        const answer = await ask(question).catch(() => undefined);
        if (answer) {
            show(answer);
            document.documentElement.dataset.state = 'told';
        }
        clearTimeout(timer);
        if (!answer || answer.decision?.action === 'wait') {
            timer = setTimeout(look, nextLook);
        }
    };
    chrome.runtime.onMessage.addListener((message) => {
        if (message.tell === 'changed') {
            look();
        }
    });
    look();
}

/** @param {Fact[]} facts */
export function showFacts(facts) {
    byId('facts').replaceChildren(...facts.flatMap(([key, value]) => {
        const name = document.createElement('dt');
        const words = document.createElement('dd');
        name.textContent = text(key);
        words.textContent = value;
        return [name, words];
    }));
}

/** Back to where the user came from; a tab that was opened for the page is closed. */
export function leave() {
    if (history.length > 1) {
        history.back();
    } else {
        window.close();
    }
}

/** @type {Record<string, string>} */
const ratings = {
    RED: 'ratingRed',
    YELLOW: 'ratingYellow',
    UNRATED: 'ratingUnrated',
    UNVERIFIED: 'ratingUnverified',
    MINIMAL_RISK: 'ratingMinimal',
};

/** @param {Decision} decision */
export function reason(decision) {
    switch (decision.by) {
        case 'list':
            return text('whyList');
        case 'category':
            return text(decision.category?.name ? 'whyCategory' : 'whyUncategorised');
        case 'phishing':
            return text('whyPhishing');
        case 'reachability':
            return text('whyReachability');
        case 'private range':
            return text('whyRange');
        default:
            return text(decision.action === 'warn' ? 'whyRatingWarn' : 'whyRating');
    }
}

/** @param {string} since */
export function dateText(since) {
    const date = new Date(since);
    return since === '' || Number.isNaN(date.getTime()) ? text('sinceUnknown')
        : date.toLocaleString(undefined, { dateStyle: 'long', timeStyle: 'short' });
}

/** @param {{ place: number, text: string }} entry */
const entryText = (entry) => text('entryPlace', entry.text, String(entry.place + 1));

/** @param {Decision & { ruled?: boolean | null }} decision @param {State} state @returns {Fact[]} */
export function factsOf(decision, state) {
    /** @type {Fact[]} */
    const facts = [];
    if (decision.entry) {
        facts.push(['factEntry', entryText(decision.entry)]);
    }
    if (decision.overruled) {
        facts.push(['factOverruled', entryText(decision.overruled)]);
    }
    if (decision.range) {
        facts.push(['factRange', decision.range.text]);
    }
    if (decision.category?.name) {
        facts.push(['factCategory', decision.category.name]);
    }
    const rating = text(ratings[decision.ratingName] ?? 'ratingUnrated');
    facts.push(['factRating', decision.ratedBy ? text('ratedBy', rating, decision.ratedBy) : rating]);
    if (decision.setting) {
        facts.push(['factSetting', decision.setting]);
    }
    facts.push(['factRuled', text(decision.ruled === true ? 'ruledPolicy' : decision.ruled === false ? 'ruledLocal' : 'ruledUnknown')]);
    facts.push(['factSince', dateText(state.settings?.since ?? '')]);
    return facts;
}
