// SipHash-2-4 with 64 bits (Aumasson, Bernstein: SipHash: a fast short-input PRF), in 32-bit halves, as no browser is quick with
// 64-bit numbers. A number is [low, high]. tests/data/ratings has vectors.
// @ts-check

/** The state v0 to v3, each low before high. */
const v = new Uint32Array(8);

/** v[a] += v[b]. @param {number} a @param {number} b */
function add(a, b) {
    const low = v[a] + v[b];
    v[a + 1] = v[a + 1] + v[b + 1] + (low > 0xffffffff ? 1 : 0);
    v[a] = low;
}

/** v[a] = (v[a] rotated left by bits) ^ v[b]. @param {number} a @param {number} bits below 32 @param {number} b */
function rotateAndMix(a, bits, b) {
    const low = v[a];
    const high = v[a + 1];
    v[a] = ((low << bits) | (high >>> (32 - bits))) ^ v[b];
    v[a + 1] = ((high << bits) | (low >>> (32 - bits))) ^ v[b + 1];
}

/** v[a] rotated by 32. @param {number} a */
function swapHalves(a) {
    const low = v[a];
    v[a] = v[a + 1];
    v[a + 1] = low;
}

function round() {
    add(0, 2);
    rotateAndMix(2, 13, 0);
    swapHalves(0);
    add(4, 6);
    rotateAndMix(6, 16, 4);
    add(0, 6);
    rotateAndMix(6, 21, 0);
    add(4, 2);
    rotateAndMix(2, 17, 4);
    swapHalves(4);
}

/** @param {number} low @param {number} high */
function takeWord(low, high) {
    v[6] ^= low;
    v[7] ^= high;
    round();
    round();
    v[0] ^= low;
    v[1] ^= high;
}

/**
 * @param {Uint32Array} key four words, the lowest first
 * @param {string} text of characters below U+0100, a byte each
 * @returns {[number, number]} low, high
 */
export function sipHash(key, text) {
    v.set([0x70736575, 0x736f6d65, 0x6e646f6d, 0x646f7261, 0x6e657261, 0x6c796765, 0x79746573, 0x74656462]);
    for (let half = 0; half < 8; ++half) {
        v[half] ^= key[half % 4];
    }
    const halves = new Uint32Array(2);
    for (let at = 0; at < text.length; ++at) {
        halves[(at >> 2) & 1] |= text.charCodeAt(at) << (8 * (at & 3));
        if ((at & 7) === 7) {
            takeWord(halves[0], halves[1]);
            halves.fill(0);
        }
    }
    takeWord(halves[0], halves[1] | (text.length << 24));
    v[4] ^= 0xff;
    for (let count = 0; count < 4; ++count) {
        round();
    }
    return [(v[0] ^ v[2] ^ v[4] ^ v[6]) >>> 0, (v[1] ^ v[3] ^ v[5] ^ v[7]) >>> 0];
}
