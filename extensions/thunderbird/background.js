// Lumora's background: opens the panel beside a compose window, and applies the host rules
// (the recipient annotation and refusal, the extra header, the subject colour). Every decision
// is the native host's; this script only carries questions and answers.
"use strict";
/* global Lumora, messenger */

// The tag that colours a message whose subject the host marks red.
const TAG_KEY = "lumoramars";
const TAG_COLOUR = "#FF0000";
// How often the recipients of open compose windows are looked at for the annotation.
const ANNOTATE_EVERY_MS = 2000;
// Messages coloured per folder when it is shown: the newest first would be nicer, but the
// list comes in the folder's order; a folder with more is coloured as new mail comes.
const MOST_MESSAGES_PER_FOLDER = 5000;

// One question to the native host, answered by one message. A host error is thrown.
async function ask(question) {
  const answer = await messenger.runtime.sendNativeMessage(Lumora.NATIVE_HOST, question);
  if (answer && answer.type === "error") throw new Error(answer.message);
  return answer;
}

function notify(text) {
  return messenger.notifications
    .create({ type: "basic", title: "Lumora", message: text, iconUrl: "icons/lumora.svg" })
    .catch(() => {});
}

// ---- The panel: one window per compose window, beside it. ----

// Compose tab id -> the panel's window id, or a promise while it opens. The page says which
// window it is in as it loads: windows.create's promise is not a reliable signal of that (it
// waits for the window to be activated, which some window managers never do).
const panels = new Map();

async function openPanel(composeTab) {
  const existing = panels.get(composeTab.id);
  if (typeof existing === "number") {
    try {
      await messenger.windows.update(existing, { focused: true });
      return;
    } catch (e) {
      panels.delete(composeTab.id);
    }
  } else if (existing) {
    return; // opening
  }
  panels.set(composeTab.id, "opening");
  try {
    const compose = await messenger.windows.get(composeTab.windowId);
    const placement = { width: 440, height: compose.height || 640 };
    if (typeof compose.left === "number" && typeof compose.width === "number") {
      placement.left = compose.left + compose.width;
      placement.top = compose.top;
    }
    messenger.windows
      .create({ url: `panel/panel.html?tab=${composeTab.id}`, type: "popup", allowScriptsToClose: true, ...placement })
      .catch((e) => {
        panels.delete(composeTab.id);
        notify(`Lumora could not open its panel: ${e.message}`);
      });
  } catch (e) {
    panels.delete(composeTab.id);
    throw e;
  }
}

messenger.composeAction.onClicked.addListener((tab) => openPanel(tab));

// The panel lives with its compose window: closing that window closes the panel, which closes
// its port, and the host stops a run still going.
messenger.tabs.onRemoved.addListener((tabId) => {
  annotated.delete(tabId);
  const panel = panels.get(tabId);
  panels.delete(tabId);
  if (typeof panel === "number") messenger.windows.remove(panel).catch(() => {});
});
messenger.windows.onRemoved.addListener((windowId) => {
  for (const [tab, panel] of panels) if (panel === windowId) panels.delete(tab);
});

// ---- The recipient rule. ----

// Thunderbird has no annotation of single addresses: the compose action carries a badge "!"
// and lists the marked addresses in its tooltip, and the panel shows them.
const annotated = new Map(); // compose tab id -> the address list last checked

async function annotate(tabId) {
  const details = await messenger.compose.getComposeDetails(tabId);
  const addresses = Lumora.recipientTexts(details);
  const key = JSON.stringify(addresses);
  if (annotated.get(tabId) === key) return;
  const answer = await ask({ type: "checkRecipients", addresses });
  const lines = Object.entries(answer.annotations).map(([address, text]) => `${address}: ${text}`);
  // The tooltip first: once the badge shows, its explanation is already there.
  await messenger.composeAction.setTitle({ tabId, title: ["Lumora", ...lines].join("\n") });
  await messenger.composeAction.setBadgeBackgroundColor({ tabId, color: "#d70022" });
  await messenger.composeAction.setBadgeText({ tabId, text: lines.length ? "!" : "" });
  messenger.runtime.sendMessage({ type: "annotations", tabId, lines }).catch(() => {});
  annotated.set(tabId, key); // only once shown: a failed look is tried again
}

// One look at a time: a slow host does not pile looks up.
let annotating = null;
function annotateAll() {
  annotating ??= (async () => {
    const tabs = await messenger.tabs.query({ type: "messageCompose" });
    for (const tab of tabs) await annotate(tab.id).catch(() => {});
  })().finally(() => (annotating = null));
  return annotating;
}
setInterval(annotateAll, ANNOTATE_EVERY_MS);

// The latest refusal, for whoever asks (the panel shows it when it opens after the fact).
let lastRefusal = null;

// The refusal, and the extra header on what may go.
messenger.compose.onBeforeSend.addListener(async (tab, details) => {
  let verdict;
  let headers;
  try {
    verdict = await ask({ type: "checkRecipients", addresses: Lumora.recipientTexts(details) });
    headers = (await ask({ type: "headers" })).headers;
  } catch (e) {
    // Without the host there is no rule to apply: the mail goes, and the user is told.
    notify(`Lumora could not check this mail's recipients: ${e.message}`);
    return {};
  }
  if (verdict.refusal) {
    lastRefusal = verdict.refusal;
    notify(verdict.refusal);
    messenger.runtime.sendMessage({ type: "refusal", tabId: tab.id, text: verdict.refusal }).catch(() => {});
    return { cancel: true };
  }
  const customHeaders = (details.customHeaders || []).filter((h) => !(h.name in headers));
  for (const [name, values] of Object.entries(headers)) {
    for (const value of values) customHeaders.push({ name, value });
  }
  return { details: { customHeaders } };
});

messenger.runtime.onMessage.addListener((message) => {
  if (!message) return undefined;
  if (message.type === "lastRefusal") return Promise.resolve(lastRefusal);
  if (message.type === "panelOpened") {
    // A compose window closed while its panel was opening takes the panel with it.
    if (!panels.has(message.tabId)) messenger.windows.remove(message.windowId).catch(() => {});
    else panels.set(message.tabId, message.windowId);
  }
  return undefined;
});

// ---- The subject colour. ----

async function ensureTag() {
  const tags = messenger.messages.tags;
  const list = await tags.list();
  if (!list.some((t) => t.key === TAG_KEY)) await tags.create(TAG_KEY, "Mars", TAG_COLOUR);
}
const tagReady = ensureTag().catch((e) => console.error("Lumora: cannot make its tag:", e));

async function colour(messages) {
  await tagReady;
  for (const group of Lumora.groups(messages, Lumora.SUBJECTS_PER_QUESTION)) {
    const answer = await ask({ type: "colour", subjects: group.map((m) => m.subject || "") });
    for (let i = 0; i < group.length; i++) {
      const message = group[i];
      if (answer.colours[i] === "red" && !message.tags.includes(TAG_KEY)) {
        await messenger.messages.update(message.id, { tags: [...message.tags, TAG_KEY] });
      }
    }
  }
}

async function colourFolder(folder) {
  let page = await messenger.messages.list(folder.id ?? folder);
  let seen = 0;
  while (true) {
    await colour(page.messages);
    seen += page.messages.length;
    if (!page.id || seen >= MOST_MESSAGES_PER_FOLDER) return;
    page = await messenger.messages.continueList(page.id);
  }
}

const logFailure = (e) => console.error("Lumora:", e);
messenger.messages.onNewMailReceived.addListener((folder, list) => colour(list.messages).catch(logFailure));
messenger.mailTabs.onDisplayedFolderChanged.addListener((tab, folder) => {
  if (folder) colourFolder(folder).catch(logFailure);
});
messenger.messageDisplay.onMessagesDisplayed.addListener((tab, displayed) => {
  colour(Array.isArray(displayed) ? displayed : displayed.messages).catch(logFailure);
});
