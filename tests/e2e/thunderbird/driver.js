// The end-to-end driver, a background script of the test build of the add-on only (run.py
// builds it from the add-on's own files plus this folder). It plays the user: opens the panel
// on a plain-text reply with some text typed, lets the panel's driver press its buttons, opens
// the panel once more, inserts a reply into an HTML reply whose window fills the screen, sends
// mail to a refused and an allowed recipient, switches two rules off on the options page and
// sends again, replies with the panel's switch on, and reports every observation to the harness
// over loopback HTTP.
"use strict";
/* global messenger, openPanel, panels, refusals, TAG_KEY */

const e2e = (() => {
  let config = null;
  // Compose tab id -> what the panel's driver does in that tab's panel.
  const roles = new Map();
  const panelResults = [];
  let optionsResult = null;

  async function report(step, data) {
    await fetch(config.report, { method: "POST", body: JSON.stringify({ step, ...data }) });
  }

  async function until(what, test, seconds = 30) {
    const end = Date.now() + seconds * 1000;
    while (Date.now() < end) {
      const value = await test();
      if (value) return value;
      await new Promise((r) => setTimeout(r, 50));
    }
    throw new Error(`timed out waiting for ${what}`);
  }

  messenger.runtime.onMessage.addListener((message) => {
    if (!message) return undefined;
    if (message.type === "e2e-mode") {
      const role = message.page === "options" ? "options" : roles.get(message.tabId);
      return Promise.resolve(role ? { ...config, role } : null);
    }
    if (message.type === "e2e-panel") {
      report("progress", { stage: `the panel's driver is done (${message.role})` });
      panelResults.push(message);
    }
    if (message.type === "e2e-options") optionsResult = message;
    return undefined;
  });

  // The test's messages, imported into a folder of their own in Local Folders (an mbox laid
  // down beside Thunderbird is not indexed until it is shown, and the add-on API reads the
  // index), then shown in the main window.
  async function importMessages() {
    const [local] = (await messenger.accounts.list(false)).filter((a) => a.type === "none");
    const folder = await messenger.folders.create(local.rootFolder.id, "Lumora test");
    const imported = [];
    for (const name of config.messages) {
      const text = await (await fetch(messenger.runtime.getURL(`e2e/${name}`))).text();
      imported.push(await messenger.messages.import(new File([text], name), folder.id));
    }
    const [mailTab] = await messenger.mailTabs.query({});
    await labelled("showing the folder", messenger.mailTabs.update(mailTab.id, { displayedFolder: folder.id }));
    return imported;
  }

  async function labelled(what, promise) {
    try {
      return await promise;
    } catch (e) {
      throw new Error(`${what}: ${e.message}`);
    }
  }

  const panelDone = (role, seconds) => until(`the ${role} panel's driver`, () => panelResults.find((r) => r.role === role), seconds);

  // A new mail sent; `role` is what the panel's driver does if the add-on opens its panel.
  async function sendAndSee(to, subject, role) {
    await report("progress", { stage: `composing to ${to}` });
    const tab = await messenger.compose.beginNew({ to: [to], subject, plainTextBody: "A test message." });
    if (role) roles.set(tab.id, role);
    await report("progress", { stage: `sending to ${to}` });
    let outcome;
    try {
      outcome = { sent: await messenger.compose.sendMessage(tab.id, { mode: "sendLater" }) };
    } catch (e) {
      outcome = { refused: String(e.message || e) };
    }
    return { tab, outcome };
  }

  // A reply with the user's own text typed above the quote, through the compose API.
  async function replyWithText(message, isPlainText) {
    const tab = await messenger.compose.beginReply(message.id, "replyToSender", { isPlainText });
    const details = await messenger.compose.getComposeDetails(tab.id);
    if (isPlainText) {
      await messenger.compose.setComposeDetails(tab.id, { plainTextBody: config.typedPlain + details.plainTextBody });
    } else {
      await messenger.compose.setComposeDetails(tab.id, {
        body: details.body.replace(/<body[^>]*>/, (open) => open + config.typedHtml),
      });
    }
    const typed = await messenger.compose.getComposeDetails(tab.id);
    return { tab, before: isPlainText ? typed.plainTextBody : typed.body };
  }

  const area = () => ({ left: screen.availLeft, top: screen.availTop, width: screen.availWidth, height: screen.availHeight });
  const bounds = (w) => ({ left: w.left, top: w.top, width: w.width, height: w.height, state: w.state, focused: w.focused });

  async function run() {
    config = await (await fetch(messenger.runtime.getURL("e2e/config.json"))).json();
    await report("started", { version: (await messenger.runtime.getBrowserInfo()).version });

    // The subject colour, when the folder is shown.
    const [answered, mars] = await labelled("importing the messages", importMessages());
    const marsTags = await until("the Mars tag", async () => {
      const tags = (await messenger.messages.get(mars.id)).tags;
      return tags.includes(TAG_KEY) ? tags : null;
    });
    const otherTags = (await messenger.messages.get(answered.id)).tags;
    await report("colour", { marsTags, otherTags });

    // The panel on a plain-text reply (the identity writes plain text) with text typed: the
    // panel's driver runs Generate, Regenerate, Copy and Insert.
    const plain = await replyWithText(answered, true);
    await report("progress", { stage: "reply opened" });
    roles.set(plain.tab.id, "main");
    openPanel(plain.tab);
    await panelDone("main", 120);
    const plainAfter = (await messenger.compose.getComposeDetails(plain.tab.id)).plainTextBody;
    await report("progress", { stage: "after the panel" });
    // Once it has closed, the panel again on the same reply: it starts with the reading chosen.
    await until("the panel to close", () => !panels.has(plain.tab.id), 20);
    roles.set(plain.tab.id, "reopened");
    openPanel(plain.tab);
    await panelDone("reopened", 60);
    await report("plainInsert", { before: plain.before, after: plainAfter });

    // Insert into an HTML reply whose window fills the screen (maximized where a window manager
    // does it, sized to the work area where there is none): the panel makes room beside it.
    const html = await replyWithText(answered, false);
    await messenger.windows.update(html.tab.windowId, { state: "maximized" });
    const maximized = await until("the maximized state", async () =>
      (await messenger.windows.get(html.tab.windowId)).state === "maximized", 0.5).catch(() => false);
    if (!maximized) await messenger.windows.update(html.tab.windowId, area());
    roles.set(html.tab.id, "html");
    openPanel(html.tab);
    const htmlPanel = await panelDone("html", 60);
    const windows = {
      area: area(),
      maximized,
      compose: bounds(await messenger.windows.get(html.tab.windowId)),
      panel: bounds(await messenger.windows.get(panels.get(html.tab.id))),
    };
    await report("look", { name: "panel-beside-maximized-compose" });
    const htmlAfter = (await messenger.compose.getComposeDetails(html.tab.id)).body;
    await report("htmlInsert", { before: html.before, after: htmlAfter, windows, panel: htmlPanel });

    // The recipient rule: the annotation on an open compose window, and the refusal on send,
    // which the panel of that compose window shows.
    const refusedSubject = `Lumora end-to-end to ${config.refusedRecipient}`;
    const refused = await sendAndSee(config.refusedRecipient, refusedSubject, "refused");
    // The mark is the badge and the tooltip's line, set one after the other: wait for both.
    const marked = async () => {
      const badge = await messenger.composeAction.getBadgeText({ tabId: refused.tab.id });
      const title = await messenger.composeAction.getTitle({ tabId: refused.tab.id });
      return { badge, title };
    };
    const { badge, title } = await until("the recipient's mark", async () => {
      const mark = await marked();
      return mark.badge && mark.title.includes("\n") ? mark : null;
    }, 10).catch(marked);
    const shown = await panelDone("refused", 20).catch((e) => ({ failure: String(e) }));
    await report("look", { name: "refusal-in-panel" });
    await report("refusal", {
      outcome: refused.outcome,
      refusal: refusals.get(refused.tab.id)?.text ?? null,
      badge,
      title,
      panel: shown,
    });

    // The extra header on what may go (to the outbox: nothing leaves the machine).
    const allowed = await sendAndSee(config.allowedRecipient, `Lumora end-to-end to ${config.allowedRecipient}`);
    await report("allowed", { outcome: allowed.outcome });

    // The options page switches the recipient check and the extra header off: a mail to the
    // reserved domain then goes, without the header.
    await messenger.runtime.openOptionsPage();
    const options = await until("the options page's driver", () => optionsResult, 30);
    await report("look", { name: "options-page" });
    const unruled = await sendAndSee(config.refusedRecipient, config.rulesOffSubject);
    await report("rulesOff", { options, outcome: unruled.outcome });

    // With the panel's switch on, a reply opens its panel with no click.
    const reply = await messenger.compose.beginReply(answered.id, "replyToSender");
    const opened = await until("the panel to open by itself", () => typeof panels.get(reply.id) === "number", 20)
      .catch(() => false);
    await report("openOnReply", { opened });
    await report("done", {});
  }

  return { run, report };
})();

e2e.run().catch((e) => e2e.report("failed", { error: `${e}\n${e && e.stack}` }));
