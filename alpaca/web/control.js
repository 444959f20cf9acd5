// The control page: polls the server's state every second and its plot
// samples every few seconds, draws each unit once and then only updates its
// values, so what the user is typing is never replaced.
'use strict';

const POLL_MS = 1000;
const RESCAN_EVERY = 30;    // polls between scans for newly plugged units
const HOUR_MS = 3600 * 1000;
const SVG = 'http://www.w3.org/2000/svg';

const cards = new Map();    // unit number -> card
let history = {period: 5, units: {}};
let polls = 0;

async function getJson(path) {
  const res = await fetch(path, {cache: 'no-store'});
  if (!res.ok) throw new Error(`${path}: HTTP ${res.status}`);
  return res.json();
}

// Every change goes out as a form POST; the answer is {ok, message, errors}.
async function post(path, fields) {
  let res;
  try {
    res = await fetch(path, {method: 'POST', body: new URLSearchParams(fields)});
  } catch (e) {
    return {ok: false, message: 'The server does not answer.', errors: {}};
  }
  const text = await res.text();
  try {
    return JSON.parse(text);
  } catch (e) {
    return {ok: false, message: text || `HTTP ${res.status}`, errors: {}};
  }
}

const dash = '—';
const steps = (v) => (v === null || v === undefined ? dash : `${v} steps`);
const celsius = (v) => (v === null || v === undefined ? dash : `${Number(v).toFixed(1)} °C`);

// The server's sentences may start in lower case (they also go to logs).
const sentence = (text) => (text ? text[0].toUpperCase() + text.slice(1) : '');

function say(el, answer) {
  el.textContent = sentence(answer.message);
  el.className = 'message ' + (answer.ok ? 'ok' : 'error');
}

// ---- one card per unit ----------------------------------------------------------

function makeCard(unit) {
  const node = document.getElementById('unit-template').content.firstElementChild.cloneNode(true);
  node.id = `focuser-${unit.number}`;
  const card = {node, number: unit.number, connected: null, settings: null};
  card.f = (name) => node.querySelector(`[data-f="${name}"]`);
  card.message = node.querySelector('[data-role="message"]');
  const base = `/control/v1/focuser/${unit.number}/`;
  const act = async (what, fields = {}, message = card.message) => {
    const answer = await post(base + what, fields);
    say(message, answer);
    showErrors(node, answer.errors || {});
    poll();
    return answer;
  };
  node.querySelector('[data-a="connect"]').addEventListener('click', () => act('connect'));
  node.querySelector('[data-a="disconnect"]').addEventListener('click', () => act('disconnect'));
  node.querySelector('[data-a="halt"]').addEventListener('click', () => act('halt'));
  for (const b of node.querySelectorAll('[data-nudge]'))
    b.addEventListener('click', () => act('move', {steps: b.dataset.nudge}));
  const form = (name) => node.querySelector(`[data-form="${name}"]`);
  form('moveto').addEventListener('submit', (e) => {
    e.preventDefault();
    act('move', {position: e.target.elements.namedItem('position').value});
  });
  form('moveby').addEventListener('submit', (e) => {
    e.preventDefault();
    act('move', {steps: e.target.elements.namedItem('steps').value});
  });
  // Redrawn whenever its width changes (a narrower window, shown after connecting).
  new ResizeObserver(() => drawPlot(card)).observe(card.f('plot'));
  const settings = form('settings');
  settings.addEventListener('submit', async (e) => {
    e.preventDefault();
    const message = node.querySelector('[data-role="settings-message"]');
    const changed = changedSettings(settings, card.settings);
    if (Object.keys(changed).length === 0) {
      say(message, {ok: true, message: 'Nothing changed.'});
      return;
    }
    const answer = await act('settings', changed, message);
    if (answer.ok) loadSettings(card);
  });
  settings.addEventListener('reset', (e) => {
    e.preventDefault();
    fillSettings(card);
    showErrors(node, {});
    node.querySelector('[data-role="settings-message"]').textContent = '';
  });
  return card;
}

function showErrors(node, errors) {
  for (const el of node.querySelectorAll('[data-error]')) {
    const text = sentence(errors[el.dataset.error] || '');
    el.textContent = text;
    const input = el.parentElement.querySelector('input');
    if (input) input.toggleAttribute('aria-invalid', text !== '');
  }
}

// The fields whose value differs from what the unit reported.
function changedSettings(form, loaded) {
  const out = {};
  for (const input of form.querySelectorAll('input[name]')) {
    const was = loaded ? loaded[input.name] : undefined;
    if (input.type === 'checkbox') {
      if (input.checked !== was) out[input.name] = input.checked ? 'true' : 'false';
    } else {
      const now = input.value.trim();
      if (now !== (was === null || was === undefined ? '' : String(was))) out[input.name] = now;
    }
  }
  return out;
}

function fillSettings(card) {
  const s = card.settings;
  if (!s) return;
  const form = card.node.querySelector('[data-form="settings"]');
  for (const input of form.querySelectorAll('input[name]')) {
    const v = s[input.name];
    if (input.type === 'checkbox') input.checked = v === true;
    else input.value = v === null || v === undefined ? '' : String(v);
  }
  card.f('rangeHint').textContent = s.stepRange ? `1 – ${s.stepRange} (the unit's step range)` : 'largest position a move may reach';
  card.f('firmware').textContent = s.firmware ? `firmware ${s.firmware}` : '';
}

async function loadSettings(card) {
  try {
    card.settings = await getJson(`/control/v1/focuser/${card.number}/settings`);
    fillSettings(card);
  } catch (e) {
    card.settings = null;
  }
}

const clock = (millis) => new Date(millis).toLocaleTimeString();

function clearMessages(card) {
  for (const m of card.node.querySelectorAll('.message')) {
    m.textContent = '';
    m.className = 'message';
  }
  showErrors(card.node, {});
}

function updateCard(card, unit) {
  // off: nobody connected it; gone: connected, then lost (the server looks
  // for it again); connected.
  const on = unit.state === 'connected';
  const gone = unit.state === 'gone';
  // What was said about the old state (a move, an error opening it) is stale now.
  if (card.state !== undefined && card.state !== unit.state) clearMessages(card);
  if (card.moving === true && unit.moving !== true && card.message.classList.contains('ok')) {
    card.message.textContent = '';
    card.message.className = 'message';
  }
  card.f('title').textContent = `Focuser ${unit.number}`;
  card.f('name').textContent = unit.name || '';
  card.f('link').textContent = unit.link === 'Bluetooth' ? `Bluetooth ${unit.bleName}` : 'USB';
  card.f('serial').textContent = `serial ${unit.serial}`;
  const state = card.f('state');
  state.textContent = on ? 'connected' : gone ? 'gone · reconnecting' : 'not connected';
  state.className = 'state ' + (on ? 'on' : gone ? 'gone' : 'off');
  const connect = card.node.querySelector('[data-a="connect"]');
  connect.hidden = on;
  connect.textContent = gone ? 'Reconnect now' : 'Connect';
  card.node.querySelector('[data-a="disconnect"]').hidden = !on && !gone;
  card.node.classList.toggle('disconnected', !on);
  card.node.classList.toggle('gone', gone);
  card.node.querySelector('.hint').textContent = gone
    ? `Gone since ${clock(unit.goneSince)}: the server is looking for it again (plugged in? in range?).` +
      (unit.lastPosition === null ? '' : ` Last seen at ${unit.lastPosition} steps, ${clock(unit.lastSeen)}.`)
    : 'Not connected: connect to move the unit, see its live values and change its settings.';
  for (const el of card.node.querySelectorAll('[data-needs="connected"]')) {
    for (const c of el.querySelectorAll('input, button')) c.disabled = !on;
  }
  // Nothing is read from a unit that is not connected: a dash, never a blank;
  // a gone unit shows where it was last seen.
  card.f('position').textContent = on ? steps(unit.position)
    : gone && unit.lastPosition !== null ? `${steps(unit.lastPosition)} (last seen)` : dash;
  card.f('temperature').textContent = on ? celsius(unit.temperature) : dash;
  card.f('motion').textContent = !on || unit.moving === null ? dash : unit.moving ? 'moving' : 'stopped';
  card.f('motion').classList.toggle('moving', unit.moving === true);
  card.f('maxStep').textContent = on ? steps(unit.maxStep) : dash;
  card.f('tempComp').textContent = unit.tempComp ? `Now: ${unit.tempComp}.` : '';
  if (on && card.connected !== true) loadSettings(card);
  if (!on) card.f('firmware').textContent = '';
  card.connected = on;
  card.state = unit.state;
  card.moving = on ? unit.moving : null;
}

// ---- the plot ----------------------------------------------------------------

function el(name, attrs, text) {
  const node = document.createElementNS(SVG, name);
  for (const [k, v] of Object.entries(attrs)) node.setAttribute(k, v);
  if (text !== undefined) node.textContent = text;
  return node;
}

// Rounded bounds and a few tick values for [lo, hi].
function scale(lo, hi, minSpan) {
  if (hi - lo < minSpan) {
    const mid = (lo + hi) / 2;
    lo = mid - minSpan / 2;
    hi = mid + minSpan / 2;
  }
  const raw = (hi - lo) / 4;
  const mag = Math.pow(10, Math.floor(Math.log10(raw)));
  const step = [1, 2, 2.5, 5, 10].map((m) => m * mag).find((s) => s >= raw);
  const from = Math.floor(lo / step) * step;
  const to = Math.ceil(hi / step) * step;
  const ticks = [];
  for (let v = from; v <= to + step / 2; v += step) ticks.push(Number(v.toFixed(6)));
  return {lo: from, hi: to, ticks};
}

function drawPlot(card) {
  const svg = card.f('plot');
  const shown = svg.getBoundingClientRect().width;
  if (!shown) return;  // hidden: drawn when it is shown
  const width = Math.max(260, Math.round(shown));
  const height = 190;
  const pad = {left: 58, right: 46, top: 10, bottom: 24};
  svg.setAttribute('viewBox', `0 0 ${width} ${height}`);
  svg.setAttribute('height', height);
  svg.replaceChildren();
  const rows = (history.units[String(card.number)] || []);
  const now = Date.now();
  const x = (t) => pad.left + ((t - (now - HOUR_MS)) / HOUR_MS) * (width - pad.left - pad.right);
  const plotBottom = height - pad.bottom;
  svg.append(el('rect', {x: pad.left, y: pad.top, width: width - pad.left - pad.right, height: plotBottom - pad.top, class: 'frame'}));
  for (let m = 0; m <= 60; m += 15) {
    const px = x(now - HOUR_MS + m * 60000);
    svg.append(el('line', {x1: px, x2: px, y1: pad.top, y2: plotBottom, class: 'grid'}));
    svg.append(el('text', {x: px, y: height - 6, class: 'tick', 'text-anchor': 'middle'}, m === 60 ? 'now' : `−${60 - m} min`));
  }
  const recent = rows.filter((r) => r[0] >= now - HOUR_MS);
  if (recent.length === 0) {
    svg.append(el('text', {x: (pad.left + width - pad.right) / 2, y: (pad.top + plotBottom) / 2, class: 'none', 'text-anchor': 'middle'},
      card.connected ? `No samples yet: the server records one every ${history.period} s.` : 'No samples: the unit is not connected.'));
    return;
  }
  const series = [
    {index: 1, cls: 'pos', minSpan: 20, side: 'left', fmt: (v) => String(Math.round(v))},
    {index: 2, cls: 'temp', minSpan: 1, side: 'right', fmt: (v) => v.toFixed(1)},
  ];
  const gap = history.period * 3000;
  for (const s of series) {
    const values = recent.filter((r) => r[s.index] !== null).map((r) => r[s.index]);
    if (values.length === 0) continue;
    const sc = scale(Math.min(...values), Math.max(...values), s.minSpan);
    const y = (v) => plotBottom - ((v - sc.lo) / (sc.hi - sc.lo)) * (plotBottom - pad.top);
    for (const t of sc.ticks) {
      if (s.side === 'left') svg.append(el('line', {x1: pad.left, x2: width - pad.right, y1: y(t), y2: y(t), class: 'grid'}));
      svg.append(el('text', {x: s.side === 'left' ? pad.left - 6 : width - pad.right + 6, y: y(t) + 4,
        class: `tick ${s.cls}`, 'text-anchor': s.side === 'left' ? 'end' : 'start'}, s.fmt(t)));
    }
    // A gap of several periods (the unit was away) breaks the line.
    let path = '';
    let last = null;
    for (const r of recent) {
      if (r[s.index] === null) { last = null; continue; }
      const cmd = last === null || r[0] - last > gap ? 'M' : 'L';
      path += `${cmd}${x(r[0]).toFixed(1)},${y(r[s.index]).toFixed(1)}`;
      last = r[0];
    }
    svg.append(el('path', {d: path, class: `line ${s.cls}`}));
    const latest = recent.filter((r) => r[s.index] !== null).pop();
    svg.append(el('circle', {cx: x(latest[0]), cy: y(latest[s.index]), r: 3.5, class: `dot ${s.cls}`}));
  }
}

// ---- polling -------------------------------------------------------------------

async function poll() {
  const linkState = document.getElementById('link-state');
  let state;
  try {
    state = await getJson('/control/v1/state' + (polls++ % RESCAN_EVERY === 0 ? '?rescan=1' : ''));
  } catch (e) {
    linkState.textContent = 'server not answering';
    linkState.className = 'link-state down';
    return;
  }
  const s = state.server;
  document.getElementById('server').textContent = `${s.name} ${s.version} · SDK ${s.sdk} · on ${s.host}`;
  document.getElementById('discovery').textContent =
    s.discoveryPort ? `discovery on UDP ${s.discoveryPort}` : 'discovery off';
  linkState.textContent = `live · ${new Date().toLocaleTimeString()}`;
  linkState.className = 'link-state up';
  const list = document.getElementById('units');
  document.getElementById('no-units').hidden = state.units.length > 0;
  for (const unit of state.units) {
    let card = cards.get(unit.number);
    const fresh = !card;
    if (fresh) {
      card = makeCard(unit);
      cards.set(unit.number, card);
      list.append(card.node);
    }
    updateCard(card, unit);
    if (fresh) {
      if (location.hash === `#${card.node.id}`) card.node.scrollIntoView();
    }
  }
}

async function pollHistory() {
  try {
    history = await getJson('/control/v1/history');
  } catch (e) {
    return;
  }
  for (const card of cards.values()) drawPlot(card);
}

function start() {
  const attach = document.getElementById('attach');
  attach.addEventListener('submit', async (e) => {
    e.preventDefault();
    const message = attach.parentElement.querySelector('[data-role="message"]');
    message.textContent = 'Looking for the unit (about 5 s)…';
    message.className = 'message';
    say(message, await post('/control/v1/bluetooth', {name: attach.elements.namedItem('name').value}));
    poll();
  });
  poll().then(pollHistory);
  setInterval(poll, POLL_MS);
  setInterval(pollHistory, 5000);
}

document.addEventListener('DOMContentLoaded', start);
