'use strict';
// Quillvane's extension, the same file in Firefox (an event page) and in the
// Chromium family (a service worker). It speaks to quillvane-native-host, which
// asks the running Quillvane; the browser that asks is what the system says
// started the host, never what a page or this file claims.

const api = globalThis.browser ?? globalThis.chrome;
const HostName = 'work.vorpa.quillvane';
const MenuId = 'open-with-quillvane';
// How long an answer is waited for; without one the link loads here, as it
// would without the extension. Firefox holds the page's request meanwhile, so
// only a Quillvane that hangs makes this felt; in the Chromium family the page
// loads while the extension waits.
const HeldTimeoutMs = 1000;
const WatchedTimeoutMs = 5000;
// The first question on a new port also waits for the host to start and for
// Quillvane to name the browser that started it (that lookup alone may take
// a second).
const HostStartMs = 2000;
// A host that is not installed is not looked for again on every navigation.
const RetryInstallMs = 60 * 1000;

let port = null;
let nextId = 1;
const pending = new Map(); // request id → resolve
const connection = { state: 'unknown', error: '', triedAt: 0 };
let leaveEnabled = true;

function connect() {
    if (port)
        return port;
    connection.triedAt = Date.now();
    const opened = api.runtime.connectNative(HostName);
    port = opened;
    opened.onMessage.addListener(onAnswer);
    opened.onDisconnect.addListener((gone) => {
        const error = api.runtime.lastError?.message ?? gone?.error?.message ?? '';
        if (port === opened)
            port = null;
        connection.error = error;
        // Chromium: "Specified native messaging host not found."; Firefox: "No
        // such native application work.vorpa.quillvane".
        connection.state = /not found|no such native application/i.test(error) ? 'not installed'
                                                                               : 'not running';
        for (const resolve of pending.values())
            resolve(null);
        pending.clear();
    });
    return opened;
}

function onAnswer(answer) {
    if (typeof answer?.quillvane === 'string') {
        connection.state = answer.quillvane;
        connection.error = '';
    }
    const resolve = pending.get(answer?.id);
    if (resolve) {
        pending.delete(answer.id);
        resolve(answer);
    }
}

// The host's answer, or null without one (none in time, no host).
function ask(request, timeoutMs) {
    return new Promise((resolve) => {
        const id = nextId++;
        const fresh = port === null || Date.now() - connection.triedAt < HostStartMs;
        pending.set(id, resolve);
        try {
            connect().postMessage({ id, ...request });
        } catch (error) {
            pending.delete(id);
            connection.error = String(error?.message ?? error);
            resolve(null);
            return;
        }
        if (timeoutMs)
            setTimeout(() => pending.delete(id) && resolve(null),
                       timeoutMs + (fresh ? HostStartMs : 0));
    });
}

const isWebLink = (url) => /^https?:\/\//i.test(url ?? '');

async function leaves(url, timeoutMs) {
    if (!leaveEnabled || !isWebLink(url))
        return false;
    if (connection.state === 'not installed' && Date.now() - connection.triedAt < RetryInstallMs)
        return false;
    const answer = await ask({ type: 'leaves', url }, timeoutMs);
    return answer?.ok === true && answer.leaves === true;
}

function handOver(url) {
    return ask({ type: 'open', url });
}

// Tabs opened for a link that has not loaded yet: when the link leaves, the
// tab has nothing to show and closes. A tab nobody opened from a page (the
// browser's first one) stays.
const freshTabs = new Set();
api.tabs.onCreated.addListener((tab) => {
    if (tab.openerTabId !== undefined)
        freshTabs.add(tab.id);
});
api.webNavigation.onCreatedNavigationTarget?.addListener((details) => freshTabs.add(details.tabId));
api.tabs.onRemoved.addListener((tabId) => freshTabs.delete(tabId));

// Where each tab's page stands, to tell a stopped navigation from one that
// came in before the answer did.
const committed = new Map(); // tab id → URL
api.webNavigation.onCommitted.addListener((details) => {
    if (details.frameId !== 0)
        return;
    committed.set(details.tabId, details.url);
    freshTabs.delete(details.tabId);
});
api.tabs.onRemoved.addListener((tabId) => committed.delete(tabId));

// held: the request was cancelled before it left, so the page never changed.
function leaveTab(tabId, url, held) {
    if (freshTabs.has(tabId)) {
        freshTabs.delete(tabId);
        api.tabs.remove(tabId).catch(() => {});
        return;
    }
    if (held)
        return;
    if (committed.get(tabId) === url) {
        // The page was quicker than the answer: back to the one it replaced.
        api.tabs.goBack(tabId).catch(() => {});
        return;
    }
    api.scripting
        ?.executeScript({ target: { tabId }, func: () => window.stop(), injectImmediately: true })
        .catch(() => {});
}

// One answer per navigation: a redirect of a link that stayed is the page's
// own business (a sign-in going through another site must not be torn apart).
const checked = new Set();
const MaxChecked = 512;

function shouldAsk(details) {
    // Not by its tab: Firefox names none (-1) for some top-level requests of a
    // tab, such as the next ones after a request this extension cancelled.
    if (details.frameId !== 0 || details.method !== 'GET')
        return false;
    if (checked.has(details.requestId))
        return false;
    checked.add(details.requestId);
    if (checked.size > MaxChecked)
        checked.delete(checked.values().next().value);
    return true;
}

async function check(details, timeoutMs) {
    if (!shouldAsk(details) || !(await leaves(details.url, timeoutMs)))
        return {};
    handOver(details.url);
    return { cancel: true };
}

// Firefox holds the request until the answer, so the page never starts
// loading. The Chromium family lets an extension watch, not hold: the
// navigation goes on while Quillvane answers, and is stopped when it leaves.
// There it is watched as a navigation, not as a request: with a request
// listener, Chromium at times never sends the first page it starts with.
const blocks = api.runtime.getManifest().permissions.includes('webRequestBlocking');
if (blocks) {
    const filter = { urls: ['http://*/*', 'https://*/*'], types: ['main_frame'] };
    api.webRequest.onBeforeRequest.addListener(async (details) => {
        const decision = await check(details, HeldTimeoutMs);
        if (decision.cancel)
            leaveTab(details.tabId, details.url, true);
        return decision;
    }, filter, ['blocking']);
} else {
    // A navigation has no method and no request yet: each is asked about once.
    api.webNavigation.onBeforeNavigate.addListener((details) => {
        // A page the browser prerenders on its own was not clicked: it never leaves.
        if (details.documentLifecycle === 'prerender' || details.tabId < 0)
            return;
        const navigation = { ...details, method: 'GET', requestId: `${details.tabId}:${details.timeStamp}` };
        check(navigation, WatchedTimeoutMs).then((decision) => decision.cancel && leaveTab(details.tabId, details.url, false));
    }, { url: [{ schemes: ['http', 'https'] }] });
}

api.runtime.onInstalled.addListener(() => {
    api.contextMenus.create({ id: MenuId, title: 'Open Link with Quillvane', contexts: ['link'] },
                            () => void api.runtime.lastError);
});
api.contextMenus.onClicked.addListener((info) => {
    if (info.menuItemId === MenuId && isWebLink(info.linkUrl))
        handOver(info.linkUrl);
});

api.storage.local.get({ leave: true }).then((stored) => {
    leaveEnabled = stored.leave !== false;
});
api.storage.onChanged.addListener((changes, area) => {
    if (area === 'local' && changes.leave)
        leaveEnabled = changes.leave.newValue !== false;
});

// The options page asks how things stand, and may hand over a link by the
// same door as the menu.
api.runtime.onMessage.addListener((message, sender, reply) => {
    if (sender.id !== api.runtime.id || message?.type !== 'state')
        return false;
    ask({ type: 'status' }, 2000).then(() => reply({
        connection: connection.state,
        error: connection.error,
        leave: leaveEnabled,
        blocks,
    }));
    return true;
});

// Connect now: the first link should not wait for the host to start.
ask({ type: 'status' });
