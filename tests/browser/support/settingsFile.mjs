// The settings file, written from outside as the daemon writes it: for settings that no single command can make.
// @ts-check

import { execFileSync } from 'node:child_process';

/** @param {string | Buffer} bytes */
const blob = (bytes) => `x'${Buffer.from(bytes).toString('hex')}'`;

/** @param {number} number */
function number32(number) {
    const bytes = Buffer.alloc(4);
    bytes.writeInt32LE(number);
    return blob(bytes);
}

/**
 * Replaces the numbers and the three lists, in one commit.
 * @param {string} file
 * @param {ReturnType<import('./GeneratedPages.mjs').PageGenerator['settings']>} settings
 */
export function writeSettings(file, settings) {
    const script = ['begin immediate;'];
    for (const [key, value] of Object.entries(settings.numbers)) {
        script.push(`insert or replace into vxsetting values (${blob(key + '\0')}, ${number32(value)});`);
    }
    script.push('delete from allowblocksettings;', 'delete from catblockinginfo;', 'delete from privateIPRange;');
    for (const { text, action } of settings.entries) {
        script.push(`insert or ignore into allowblocksettings values (${blob(text)}, ${action});`);
    }
    for (const name of settings.categories) {
        script.push(`insert or ignore into catblockinginfo values (${blob(name)}, ${number32(3)});`);
    }
    for (const range of settings.ranges) {
        script.push(`insert or ignore into privateIPRange values (${blob(range)});`);
    }
    execFileSync('sqlite3', ['-bail', '-cmd', '.timeout 5000', file], { input: script.concat('commit;\n').join('\n') });
}
