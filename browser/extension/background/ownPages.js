// The pages that stand in the place of one of the web, which they carry in their query.
// @ts-check

/** @typedef {'blocked' | 'warning' | 'waiting'} OwnPage */

/** @param {OwnPage} name @param {string} url */
export function addressOf(name, url) {
    return `${chrome.runtime.getURL(`pages/${name}.html`)}?${new URLSearchParams({ url })}`;
}

/** Sends the tab there. It may be gone meanwhile. @param {number} tab @param {OwnPage} name @param {string} url */
export function show(tab, name, url) {
    return chrome.tabs.update(tab, { url: addressOf(name, url) }).then(undefined, () => undefined);
}
