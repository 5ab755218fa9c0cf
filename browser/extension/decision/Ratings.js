// What is known of sites, from memory: the host's message "ratings", in which names stand as hashes. A host is looked up by its own
// name and then by each name above it; the first that is there decides. An address is looked up by itself alone.
// @ts-check

import { sipHash } from './SipHash.js';

/** @typedef {import('./PageRules.js').Standing} Standing */
/** @typedef {import('./WebUrl.js').WebUrl} WebUrl */
/** The host's message. The three tables are base64 of numbers, the lowest byte first.
 * @typedef {object} RatingsMessage
 * @property {boolean} reachable
 * @property {string} key of the hash, 16 bytes
 * @property {{ rating: number, categories: { name: string, number: number }[], phishing: boolean, ratedBy: string }[]} classes
 * the first one is that of a site of which nothing is known
 * @property {string} hashes 8 bytes a name, ascending
 * @property {string} itself 2 bytes a name: class of the name
 * @property {string} below 2 bytes a name: class of the names below it
 */

/** @param {string} text base64 */
function bytesOf(text) {
    const binary = atob(text);
    const bytes = new Uint8Array(binary.length);
    for (let at = 0; at < binary.length; ++at) {
        bytes[at] = binary.charCodeAt(at);
    }
    return bytes.buffer;
}

export class Ratings {
    /** @param {RatingsMessage} message */
    constructor(message) {
        this.key = new Uint32Array(bytesOf(message.key));
        this.hashes = new Uint32Array(bytesOf(message.hashes)); // low before high
        this.itself = new Uint16Array(bytesOf(message.itself));
        this.below = new Uint16Array(bytesOf(message.below));
        /** @type {Standing[]} */
        this.standings = message.classes.map(({ rating, categories, phishing, ratedBy }) => ({
            rating, categories, isPhishing: phishing, ratedBy, isReachable: message.reachable,
        }));
    }

    /** @param {WebUrl | null} url null: an address that cannot be read @returns {Standing} */
    standingOf(url) {
        if (url === null) {
            return this.standings[0];
        }
        const found = this.#find(url.host);
        if (found >= 0) {
            return this.standings[this.itself[found]];
        }
        if (url.address === null && !url.host.startsWith('[')) {
            for (let dot = url.host.indexOf('.'); dot >= 0; dot = url.host.indexOf('.', dot + 1)) {
                const above = this.#find(url.host.slice(dot + 1));
                if (above >= 0) {
                    return this.standings[this.below[above]];
                }
            }
        }
        return this.standings[0];
    }

    /** The place of a name; -1 when it has none. @param {string} name */
    #find(name) {
        const [low, high] = sipHash(this.key, name);
        let from = 0;
        let to = this.itself.length;
        while (from < to) {
            const middle = (from + to) >>> 1;
            const middleHigh = this.hashes[2 * middle + 1];
            if (middleHigh < high || (middleHigh === high && this.hashes[2 * middle] < low)) {
                from = middle + 1;
            } else {
                to = middle;
            }
        }
        return from < this.itself.length && this.hashes[2 * from] === low && this.hashes[2 * from + 1] === high ? from : -1;
    }
}
