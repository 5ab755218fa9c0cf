// The settings file, written from outside as the daemon writes it: for settings that no single command can make.
// @ts-check

import { execFileSync } from 'node:child_process';

/** @param {string | Buffer} bytes */
const blob = (bytes) => `x'${Buffer.from(bytes).toString('hex')}'`;

/** The names of rows are texts: as a blob the same bytes would be another row. @param {string} bytes */
const name = (bytes) => `cast(${blob(bytes)} as text)`;

/** @param {number} number */
function number32(number) {
    const bytes = Buffer.alloc(4);
    bytes.writeInt32LE(number);
    return blob(bytes);
}

/**
 * Replaces the numbers and the three lists, in one commit.
 * @param {string} file
 * @param {{ numbers: Record<string, number>, entries: { text: string, action: number }[], categories: string[], ranges: string[] }} settings
 */
export function writeSettings(file, settings) {
    const script = ['begin immediate;'];
    for (const [key, value] of Object.entries(settings.numbers)) {
        script.push(`insert or replace into vxsetting values (${name(key + '\0')}, ${number32(value)});`);
    }
    script.push('delete from allowblocksettings;', 'delete from catblockinginfo;', 'delete from privateIPRange;');
    for (const { text, action } of settings.entries) {
        script.push(`insert or ignore into allowblocksettings values (${name(text)}, ${action});`);
    }
    for (const category of settings.categories) {
        script.push(`insert or ignore into catblockinginfo values (${name(category)}, ${number32(3)});`);
    }
    for (const range of settings.ranges) {
        script.push(`insert or ignore into privateIPRange values (${name(range)});`);
    }
    execFileSync('sqlite3', ['-bail', '-cmd', '.timeout 5000', file], { input: script.concat('commit;\n').join('\n') });
}
