// The link to the browser host: a native-messaging port that is made anew whenever it ends.
//
// The first attempt after an end comes at once, the next ones after a time that doubles up to a bound and begins anew with each
// welcome. A question that was put and not answered is put again to the next host, until its deadline; so a host that is killed
// costs a question some milliseconds and no report. A host that refuses our version is asked again like one that is missing.
// @ts-check

/** @typedef {import('../decision/Ratings.js').RatingsMessage} RatingsMessage */
/** @typedef {import('./messages.js').Settings} Settings */
/** @typedef {import('./messages.js').HostDecision} HostDecision */
/** @typedef {import('./messages.js').Requested} Requested */
/** @typedef {{ message: any, done: (answer: any) => void, timer: ReturnType<typeof setTimeout> }} Question */

const hostName = 'sentrel.browser_host';
const messageVersion = 1;
const firstPause = 50; // ms
const longestPause = 5000; // ms
/** The host gives a request 5 s. */
const accessDeadline = 8000; // ms
/** Reports that wait for a host; further ones are lost, as no page may make us grow. */
const mostQuestions = 500;

/** The host did not answer in time. */
export class HostAway extends Error {}

export class HostLink {
    /** @type {chrome.runtime.Port | null} */
    #port = null;
    #pause = 0;
    #nextId = 1;
    /** @type {Map<number, Question>} */
    #questions = new Map();
    #pieces = new Pieces();

    /** Whether a host has said welcome. */
    connected = false;
    /** Why it has not, as the browser or the host put it. */
    because = '';

    /**
     * @param {'firefox' | 'chromium'} browser
     * @param {boolean} decidesHere whether everything that decides is wanted
     * `requests`: some request for access, of whomever, is another.
     * @param {{ requests: () => void, settings: (settings: Settings) => void, ratings: (ratings: RatingsMessage) => void, changed: () => void }} listener
     */
    constructor(browser, decidesHere, listener) {
        this.hello = { type: 'hello', version: messageVersion, browser, rules: decidesHere, ratings: decidesHere };
        this.listener = listener;
    }

    connect() {
        if (this.#port !== null) {
            return;
        }
        const port = chrome.runtime.connectNative(hostName);
        this.#port = port;
        this.#pieces = new Pieces();
        port.onMessage.addListener((message) => this.#take(message));
        port.onDisconnect.addListener(() => this.#lost(port));
        port.postMessage(this.hello);
    }

    /**
     * @param {string} url
     * @param {'main' | 'sub'} frame
     * @param {number} milliseconds
     * @returns {Promise<HostDecision>} @throws {HostAway}
     */
    decide(url, frame, milliseconds) {
        return this.#ask({ type: 'decide', url, frame }, milliseconds);
    }

    /**
     * @param {string} url
     * @param {'none' | 'went-on' | 'turned-back'} answer
     * @returns {Promise<{ outcome: string }>} @throws {HostAway}
     */
    report(url, answer) {
        return this.#ask({ type: 'report', url, answer }, 10 * 60 * 1000);
    }

    /**
     * Asks an administrator for access to a page, or only what came of asking.
     * @param {{ type: 'request', url: string, reason: string } | { type: 'requests', url: string }} message
     * @returns {Promise<Requested>} it always has an answer
     */
    requestAccess(message) {
        const away = (/** @type {string} */ because) => ({ outcome: /** @type {const} */ ('away'), url: '', number: 0, because, last: null });
        return this.#ask(message, accessDeadline).then(
            (answer) => (answer.type === 'requested' ? answer : away(answer.text)),
            (error) => away(error.message),
        );
    }

    /** @param {any} message @param {number} milliseconds @returns {Promise<any>} */
    #ask(message, milliseconds) {
        if (this.#questions.size >= mostQuestions) {
            return Promise.reject(new HostAway('too many questions wait for the host'));
        }
        const id = this.#nextId++;
        return new Promise((done, fail) => {
            const timer = setTimeout(() => {
                this.#questions.delete(id);
                fail(new HostAway(this.because || 'the host did not answer in time'));
            }, milliseconds);
            this.#questions.set(id, { message: { ...message, id }, done, timer });
            if (this.connected) {
                this.#port?.postMessage({ ...message, id });
            }
        });
    }

    /** @param {any} arrived */
    #take(arrived) {
        const message = arrived.type === 'piece' ? this.#pieces.take(arrived) : arrived;
        if (message === null) {
            return;
        }
        if (message.type === 'welcome') {
            this.#welcomed();
        } else if (message.type === 'settings') {
            this.listener.settings(message);
        } else if (message.type === 'requests-changed') {
            this.listener.requests();
        } else if (message.type === 'ratings') {
            this.listener.ratings(message);
        } else if (message.type === 'error' && message.id === undefined) {
            this.#port?.disconnect(); // tells nobody on this side
            this.#lost(this.#port, message.text);
        } else {
            this.#answered(message);
        }
    }

    #welcomed() {
        this.connected = true;
        this.because = '';
        this.#pause = 0;
        for (const question of this.#questions.values()) {
            this.#port?.postMessage(question.message);
        }
        this.listener.changed();
    }

    /** An error is an answer too: asking the same again would bring the same. @param {any} message */
    #answered(message) {
        const question = this.#questions.get(message.id);
        if (question) {
            this.#questions.delete(message.id);
            clearTimeout(question.timer);
            question.done(message);
        }
    }

    /** @param {chrome.runtime.Port | null} port @param {string} [because] as the host put it */
    #lost(port, because) {
        if (port === null || port !== this.#port) {
            return;
        }
        const failure = /** @type {any} */ (port).error ?? chrome.runtime.lastError;
        this.#port = null;
        this.connected = false;
        this.because = because ?? failure?.message ?? 'the host ended';
        setTimeout(() => this.connect(), this.#pause);
        this.#pause = Math.min(longestPause, Math.max(firstPause, 2 * this.#pause));
        this.listener.changed();
    }
}

/** Puts together what comes in pieces. */
export class Pieces {
    /** @type {{ of: number, texts: string[] }} */
    #open = { of: -1, texts: [] };

    /** @param {{ of: number, index: number, count: number, text: string }} piece @returns {any} the message, when it is whole */
    take(piece) {
        if (piece.index === 0) {
            this.#open = { of: piece.of, texts: [] };
        }
        if (piece.of !== this.#open.of || piece.index !== this.#open.texts.length) {
            return null; // the rest of one whose beginning was not seen
        }
        this.#open.texts.push(piece.text);
        if (this.#open.texts.length < piece.count) {
            return null;
        }
        const text = this.#open.texts.join('');
        this.#open = { of: -1, texts: [] };
        return JSON.parse(text);
    }
}
