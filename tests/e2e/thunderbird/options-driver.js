// The options page's half of the end-to-end driver (test build only): clicks the switches it is
// given as a user would (the panel on reply on, the recipient check and the extra header off),
// and says what the page and storage then hold.
"use strict";
/* global messenger */

(async () => {
  const config = await messenger.runtime.sendMessage({ type: "e2e-mode", page: "options" });
  if (!config) return;
  const box = (id) => document.getElementById(id);
  const seen = {};
  try {
    const end = Date.now() + 20000;
    // The page enables its switches once it has read them.
    while (box("recipientCheck").disabled && Date.now() < end) await new Promise((r) => setTimeout(r, 20));
    seen.atStart = Object.fromEntries(config.switches.map((id) => [id, box(id).checked]));
    for (const id of config.click) box(id).click();
    const stored = () => messenger.storage.local.get(config.switches);
    while (Date.now() < end) {
      const now = await stored();
      if (config.click.every((id) => now[id] === !seen.atStart[id])) break;
      await new Promise((r) => setTimeout(r, 20));
    }
    seen.stored = await stored();
  } catch (e) {
    seen.failure = `${e}\n${e && e.stack}`;
  }
  await messenger.runtime.sendMessage({ type: "e2e-options", ...seen });
})();
