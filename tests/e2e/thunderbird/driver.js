// The end-to-end driver, a background script of the test build of the add-on only (run.py
// builds it from the add-on's own files plus this folder). It plays the user: opens the panel
// on a reply, lets the panel's driver press its buttons, opens the panel once more, sends mail
// to a refused and an allowed recipient, and reports every observation to the harness over
// loopback HTTP.
"use strict";
/* global messenger, openPanel, panels, lastRefusal, TAG_KEY */

const e2e = (() => {
  let config = null;
  const panelResults = [];
  const waiters = [];

  async function report(step, data) {
    await fetch(config.report, { method: "POST", body: JSON.stringify({ step, ...data }) });
  }

  async function until(what, test, seconds = 30) {
    const end = Date.now() + seconds * 1000;
    while (Date.now() < end) {
      const value = await test();
      if (value) return value;
      await new Promise((r) => setTimeout(r, 100));
    }
    throw new Error(`timed out waiting for ${what}`);
  }

  messenger.runtime.onMessage.addListener((message) => {
    if (!message) return undefined;
    // A panel opened after the first one's driver is done is the one opened again.
    if (message.type === "e2e-mode") return Promise.resolve({ ...config, reopened: panelResults.length > 0 });
    if (message.type === "e2e-panel") {
      report("progress", { stage: "the panel's driver is done" });
      panelResults.push(message);
      waiters.splice(0).forEach((w) => w());
    }
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

  async function sendAndSee(to) {
    await report("progress", { stage: `composing to ${to}` });
    const tab = await messenger.compose.beginNew({
      to: [to],
      subject: `Lumora end-to-end to ${to}`,
      plainTextBody: "A test message.",
    });
    await report("progress", { stage: `sending to ${to}` });
    let outcome;
    try {
      outcome = { sent: await messenger.compose.sendMessage(tab.id, { mode: "sendLater" }) };
    } catch (e) {
      outcome = { refused: String(e.message || e) };
    }
    return { tab, outcome };
  }

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

    // The panel on a reply: the panel's driver runs Generate, Regenerate and Copy.
    const compose = await messenger.compose.beginReply(answered.id);
    await report("progress", { stage: "reply opened" });
    openPanel(compose);
    await until("the panel's driver", () => panelResults.length > 0, 120);
    await report("progress", { stage: "after the panel" });
    // Once it has closed, the panel again on the same reply: it starts with the reading chosen.
    await until("the panel to close", () => !panels.has(compose.id), 20);
    openPanel(compose);
    await until("the panel opened again", () => panelResults.length > 1, 60);

    // The recipient rule: the annotation on an open compose window, and the refusal on send.
    const refused = await sendAndSee(config.refusedRecipient);
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
    await report("refusal", { outcome: refused.outcome, lastRefusal, badge, title });

    // The extra header on what may go (to the outbox: nothing leaves the machine).
    const allowed = await sendAndSee(config.allowedRecipient);
    await report("allowed", { outcome: allowed.outcome });
    await report("done", {});
  }

  return { run, report };
})();

e2e.run().catch((e) => e2e.report("failed", { error: `${e}\n${e && e.stack}` }));
