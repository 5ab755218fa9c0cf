// Those who wait for another state of the host, each for a time of his own. Nobody is remembered beyond his time: a page can make as
// many requests as it likes while the host is away.
// @ts-check

export class Waiters {
    /** @type {Set<() => void>} */
    #wakes = new Set();

    /** How many wait. */
    get size() {
        return this.#wakes.size;
    }

    /** Until the others are woken too, or the time is over. @param {number} milliseconds @returns {Promise<void>} */
    wait(milliseconds) {
        return new Promise((done) => {
            const wake = () => {
                clearTimeout(timer);
                this.#wakes.delete(wake);
                done();
            };
            const timer = setTimeout(wake, milliseconds);
            this.#wakes.add(wake);
        });
    }

    /** Wakes those who wait now. */
    wakeAll() {
        for (const wake of [...this.#wakes]) {
            wake();
        }
    }
}
