// The extension's own modules in node, without a browser: for what a module does with what the browser tells it.
// @ts-check

import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { fileURLToPath, pathToFileURL } from 'node:url';

const extensionTree = fileURLToPath(new URL('../../../browser/extension', import.meta.url));
let copy = '';

/** @param {string} name such as background/Gate.js @returns {Promise<any>} */
export function extensionModule(name) {
    if (copy === '') {
        copy = fs.mkdtempSync(path.join(os.tmpdir(), 'sentrel-modules-'));
        process.on('exit', () => fs.rmSync(copy, { recursive: true }));
        fs.cpSync(extensionTree, copy, { recursive: true });
        // A browser takes every file for a module; node wants to be told.
        fs.writeFileSync(path.join(copy, 'package.json'), '{"type": "module"}');
    }
    return import(pathToFileURL(path.join(copy, name)).href);
}

/** Stands for the browser in the modules. @param {Record<string, any>} browser */
export function standIn(browser) {
    /** @type {any} */ (globalThis).chrome = browser;
}
