// The options page: the panel's switch and one per host rule, kept in storage.local, where the background reads
// them at each use.
"use strict";
/* global Lumora, messenger */

const keys = Object.keys(Lumora.SWITCHES);

function show(stored) {
  const on = Lumora.switchesFrom(stored);
  for (const key of keys) {
    const box = document.getElementById(key);
    box.checked = on[key];
    box.disabled = false;
  }
  // The switches slide from here on, not as the page first shows them.
  requestAnimationFrame(() => document.body.classList.add("ready"));
}

function problem(e) {
  const line = document.getElementById("problem");
  line.textContent = `The setting could not be kept: ${(e && e.message) || e}`;
  line.hidden = false;
}

for (const key of keys) {
  document.getElementById(key).addEventListener("change", (event) => {
    messenger.storage.local.set({ [key]: event.target.checked }).catch(problem);
  });
}
// Another options page, or a second window of this one, changed a switch.
messenger.storage.onChanged.addListener((changes, area) => {
  if (area !== "local" || !keys.some((key) => key in changes)) return;
  messenger.storage.local.get(keys).then(show, problem);
});
messenger.storage.local.get(keys).then(show, problem);
