// Lumora's background: opens the panel beside a compose window, making room for it, and applies
// the host rules (the recipient annotation and refusal, the extra header, the subject colour),
// each while its switch on the options page is on. The rules' decisions are the native host's;
// this script carries questions and answers.
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

// The options page's switches, read at each use: a change applies to the next mail.
async function switches() {
  return Lumora.switchesFrom(await messenger.storage.local.get(Object.keys(Lumora.SWITCHES)));
}

function notify(text) {
  return messenger.notifications
    .create({ type: "basic", title: "Lumora", message: text, iconUrl: "icons/lumora.svg" })
    .catch(() => {});
}

// ---- The panel: one window per compose window, beside it. ----

// Compose tab id -> the panel's window id, or "opening" while it opens. The page says which
// window it is in as it loads: windows.create's promise is not a reliable signal of that (it
// waits for the window to be activated, which some window managers never do).
const panels = new Map();

// The screen's work area, without the desktop's panels and docks.
function workArea() {
  return { left: screen.availLeft, top: screen.availTop, width: screen.availWidth, height: screen.availHeight };
}

// Makes room beside the compose window `composeWindowId` for a panel `panelWidth` wide (moving,
// narrowing or un-maximizing the compose window if it must) and returns the panel's bounds.
async function makeRoom(composeWindowId, panelWidth) {
  const compose = await messenger.windows.get(composeWindowId);
  const plan = Lumora.panelPlacement(compose, workArea(), panelWidth);
  if (plan.compose) {
    // A maximized window takes no bounds until it is normal; both in one update.
    await messenger.windows.update(composeWindowId, { state: "normal", ...plan.compose });
  }
  return plan.panel;
}

// The open panel of a compose tab, beside its compose window again if the two overlap (the
// compose window was moved or maximized since), and in front.
async function keepBeside(tabId) {
  const panelId = panels.get(tabId);
  if (typeof panelId !== "number") return;
  const tab = await messenger.tabs.get(tabId);
  const [compose, panel] = await Promise.all([messenger.windows.get(tab.windowId), messenger.windows.get(panelId)]);
  const update = { focused: true };
  if (Lumora.panelMisplaced(compose, panel, workArea())) Object.assign(update, await makeRoom(compose.id, panel.width));
  await messenger.windows.update(panelId, update);
}

async function openPanel(composeTab) {
  const existing = panels.get(composeTab.id);
  if (typeof existing === "number") {
    try {
      await keepBeside(composeTab.id);
      return;
    } catch (e) {
      panels.delete(composeTab.id);
    }
  } else if (existing) {
    return; // opening
  }
  panels.set(composeTab.id, "opening");
  try {
    const placement = await makeRoom(composeTab.windowId, Lumora.PANEL_WIDTH);
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

// With its switch on, a reply opens its panel by itself: Generate and Insert are then all it
// takes. Only replies: a new mail or a forward has nothing to answer.
messenger.tabs.onCreated.addListener(async (tab) => {
  if (tab.type !== "messageCompose" || !(await switches()).openOnReply) return;
  const details = await messenger.compose.getComposeDetails(tab.id).catch(() => null);
  if (details && details.type === "reply") openPanel(tab).catch((e) => console.error("Lumora: cannot open the panel:", e));
});

// The panel lives with its compose window: closing that window closes the panel, which closes
// its port, and the host stops a run still going.
messenger.tabs.onRemoved.addListener((tabId) => {
  annotated.delete(tabId);
  refusals.delete(tabId);
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
const annotated = new Map(); // compose tab id -> the address list last checked, and the switch
// Compose tab id -> {text, key}: the last refused send and the addresses it was refused for,
// shown in the panel until the addresses change.
const refusals = new Map();

async function annotate(tabId, on) {
  const details = await messenger.compose.getComposeDetails(tabId);
  const addresses = Lumora.recipientTexts(details);
  const key = JSON.stringify(addresses);
  const refusal = refusals.get(tabId);
  if (refusal && refusal.key !== key) {
    refusals.delete(tabId);
    messenger.runtime.sendMessage({ type: "refusal", tabId, text: null }).catch(() => {});
  }
  const seen = JSON.stringify([on, key]);
  if (annotated.get(tabId) === seen) return;
  let lines = [];
  if (on) {
    const answer = await ask({ type: "checkRecipients", addresses });
    lines = Object.entries(answer.annotations).map(([address, text]) => `${address}: ${text}`);
  }
  // The tooltip first: once the badge shows, its explanation is already there.
  await messenger.composeAction.setTitle({ tabId, title: ["Lumora", ...lines].join("\n") });
  await messenger.composeAction.setBadgeBackgroundColor({ tabId, color: "#d70022" });
  await messenger.composeAction.setBadgeText({ tabId, text: lines.length ? "!" : "" });
  messenger.runtime.sendMessage({ type: "annotations", tabId, lines }).catch(() => {});
  annotated.set(tabId, seen); // only once shown: a failed look is tried again
}

// One look at a time: a slow host does not pile looks up.
let annotating = null;
function annotateAll() {
  annotating ??= (async () => {
    const tabs = await messenger.tabs.query({ type: "messageCompose" });
    const on = (await switches()).recipientCheck;
    for (const tab of tabs) await annotate(tab.id, on).catch(() => {});
  })().finally(() => (annotating = null));
  return annotating;
}
setInterval(annotateAll, ANNOTATE_EVERY_MS);

// The refusal, and the extra header on what may go; only the rules switched on are asked.
messenger.compose.onBeforeSend.addListener(async (tab, details) => {
  const on = await switches();
  const addresses = Lumora.recipientTexts(details);
  let verdict = null;
  let headers = null;
  try {
    if (on.recipientCheck) verdict = await ask({ type: "checkRecipients", addresses });
    if (on.extraHeader) headers = (await ask({ type: "headers" })).headers;
  } catch (e) {
    // Without the host there is no rule to apply: the mail goes, and the user is told.
    notify(`Lumora could not check this mail: ${e.message}`);
    return {};
  }
  const outcome = Lumora.sendOutcome(on, verdict, headers, details.customHeaders);
  if (outcome.cancel) {
    // Thunderbird only says that sending was cancelled, and a notification needs a daemon that
    // many desktops lack: the panel of this compose window says why.
    refusals.set(tab.id, { text: outcome.refusal, key: JSON.stringify(addresses) });
    notify(outcome.refusal);
    messenger.runtime.sendMessage({ type: "refusal", tabId: tab.id, text: outcome.refusal }).catch(() => {});
    openPanel(tab).catch((e) => console.error("Lumora: cannot show the refusal:", e));
    return { cancel: true };
  }
  return outcome;
});

messenger.runtime.onMessage.addListener((message) => {
  if (!message) return undefined;
  if (message.type === "refusalOf") return Promise.resolve(refusals.get(message.tabId)?.text ?? null);
  if (message.type === "keepBeside") return keepBeside(message.tabId).catch(() => {});
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
  if (!(await switches()).subjectColour) return;
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
