// What was decided on pages in this browser, for the dashboard: kept here, told to nobody, and bounded.
//
// Of an opened page only the hour counts; of one that was held back the site is kept too. Nothing of private windows comes here.
// @ts-check

/** @typedef {import('./messages.js').HostDecision} HostDecision */
/** Counts of an hour. @typedef {{ hour: number, allow: number, warn: number, block: number }} Hour */
/** A page that was held back. @typedef {{ time: number, site: string, action: 'warn' | 'block', by: string }} Held */

const hourLength = 3600000; // ms
const mostHeld = 5000;
const longest = 90 * 24 * hourLength;

/** @template T @param {IDBRequest<T>} request @returns {Promise<T>} */
function done(request) {
    return new Promise((resolve, reject) => {
        request.onsuccess = () => resolve(request.result);
        request.onerror = () => reject(request.error);
    });
}

export class History {
    /** @type {Promise<IDBDatabase> | null} */
    #database = null;

    #open() {
        const request = indexedDB.open('history', 1);
        request.onupgradeneeded = () => {
            request.result.createObjectStore('hours', { keyPath: 'hour' });
            request.result.createObjectStore('held', { autoIncrement: true });
        };
        return done(request);
    }

    /** @param {IDBTransactionMode} mode */
    async #stores(mode) {
        this.#database ??= this.#open();
        const transaction = (await this.#database).transaction(['hours', 'held'], mode);
        return { hours: transaction.objectStore('hours'), held: transaction.objectStore('held') };
    }

    /** Counts a decision that was carried out. @param {HostDecision} decision @param {number} [now] */
    async add(decision, now = Date.now()) {
        if (decision.action === 'wait') {
            return;
        }
        const { hours, held } = await this.#stores('readwrite');
        const hour = Math.floor(now / hourLength) * hourLength;
        const counts = await done(/** @type {IDBRequest<Hour | undefined>} */ (hours.get(hour))) ?? { hour, allow: 0, warn: 0, block: 0 };
        counts[decision.action] += 1;
        hours.put(counts);
        hours.delete(IDBKeyRange.upperBound(now - longest));
        if (decision.action !== 'allow') {
            const { hostname } = new URL(decision.url);
            const key = await done(held.add({ time: now, site: hostname, action: decision.action, by: decision.by }));
            held.delete(IDBKeyRange.upperBound(Number(key) - mostHeld));
        }
    }

    /** Everything that is kept, the oldest first. @returns {Promise<{ hours: Hour[], held: Held[] }>} */
    async read() {
        const { hours, held } = await this.#stores('readonly');
        const [allHours, allHeld] = await Promise.all([done(hours.getAll()), done(held.getAll())]);
        return { hours: allHours, held: allHeld.filter(({ time }) => time > Date.now() - longest) };
    }

    async clear() {
        const { hours, held } = await this.#stores('readwrite');
        await Promise.all([done(hours.clear()), done(held.clear())]);
    }
}
