// Waiting: every wait has a deadline and says what it waited for.
// @ts-check

const betweenLooks = 20;

/** @param {number} milliseconds @returns {Promise<void>} */
const pause = (milliseconds) => new Promise((done) => setTimeout(done, milliseconds));

/**
 * Looks until the condition gives something that counts as true, and returns that.
 * @template T
 * @param {string} what what is waited for, as it reads behind "waited in vain for"
 * @param {() => T | Promise<T>} condition
 * @param {number} [milliseconds]
 * @returns {Promise<T>}
 */
export async function awaitThat(what, condition, milliseconds = 10000) {
    const end = performance.now() + milliseconds;
    for (;;) {
        const seen = await condition();
        if (seen) {
            return seen;
        }
        if (performance.now() > end) {
            throw new Error(`waited in vain for ${what} (${milliseconds} ms)`);
        }
        await pause(betweenLooks);
    }
}

/**
 * What the promise gives, or an error when that takes too long.
 * @template T
 * @param {string} what
 * @param {Promise<T>} promise
 * @param {number} [milliseconds]
 * @returns {Promise<T>}
 */
export async function within(what, promise, milliseconds = 15000) {
    /** @type {NodeJS.Timeout | undefined} */
    let timer;
    const late = new Promise((_, fail) => {
        timer = setTimeout(() => fail(new Error(`waited in vain for ${what} (${milliseconds} ms)`)), milliseconds);
    });
    try {
        return /** @type {T} */ (await Promise.race([promise, late]));
    } finally {
        clearTimeout(timer);
    }
}
