// The collector's dashboard: reads /api/v1 and draws each view with Chart.js.
// Every value from the server is put into the page as text, never as markup.
'use strict';

(function () {
  const main = document.getElementById('main');
  const appSelect = document.getElementById('app');
  const rangeSelect = document.getElementById('range');
  const customRange = document.getElementById('custom-range');
  const fromInput = document.getElementById('from');
  const toInput = document.getElementById('to');
  const rangeText = document.getElementById('range-text');
  const COLORS = ['#2f6fdf', '#12b76a', '#f79009', '#7a5af8', '#f04438', '#0ba5ec', '#667085', '#ee46bc'];
  const HOUR = 3600;
  let charts = [];
  let livePoll = null;
  let renderCount = 0;

  // ---- small helpers --------------------------------------------------------
  function el(tag, attrs, ...children) {
    const node = document.createElement(tag);
    for (const [key, value] of Object.entries(attrs || {})) {
      if (value === undefined || value === null || value === false) continue;
      if (key === 'class') node.className = value;
      else if (key.startsWith('on')) node.addEventListener(key.slice(2), value);
      else if (key === 'dataset') Object.assign(node.dataset, value);
      else node.setAttribute(key, value === true ? '' : value);
    }
    for (const child of children.flat()) {
      if (child === null || child === undefined || child === false) continue;
      node.append(child instanceof Node ? child : document.createTextNode(String(child)));
    }
    return node;
  }
  const fmt = new Intl.NumberFormat();
  function number(n) { return n === null || n === undefined ? '–' : fmt.format(n); }
  function seconds(s) {
    if (s === null || s === undefined) return '–';
    s = Math.round(s);
    if (s < 60) return s + ' s';
    if (s < 3600) return Math.floor(s / 60) + ' min ' + (s % 60) + ' s';
    return Math.floor(s / 3600) + ' h ' + Math.round((s % 3600) / 60) + ' min';
  }
  function when(t) { return t ? new Date(t * 1000).toLocaleString() : '–'; }
  function bucketLabel(t, bucket) {
    const d = new Date(t * 1000);
    return bucket === 'hour'
      ? d.toLocaleString(undefined, { weekday: 'short', hour: '2-digit', minute: '2-digit' })
      : d.toLocaleDateString(undefined, { month: 'short', day: 'numeric' });
  }
  function label(v) { return v === null || v === undefined ? '(no name)' : String(v); }

  // ---- state: the view and filters live in the address (#view?app=..&range=..)
  function state() {
    const [view, query] = location.hash.replace(/^#/, '').split('?');
    const params = new URLSearchParams(query || '');
    return {
      view: ['overview', 'pages', 'events', 'audience', 'devices', 'live'].includes(view) ? view : 'overview',
      app: params.get('app') || '',
      range: params.get('range') || '7d',
      from: params.get('from') || '',
      to: params.get('to') || '',
      mid: params.get('mid') || '',
      q: params.get('q') || '',
    };
  }
  function go(changes) {
    const s = Object.assign(state(), changes);
    const params = new URLSearchParams();
    for (const key of ['app', 'range', 'from', 'to', 'mid', 'q']) if (s[key]) params.set(key, s[key]);
    if (s.range !== 'custom') { params.delete('from'); params.delete('to'); }
    location.hash = s.view + (params.toString() ? '?' + params : '');
  }

  // The range in the browser's time zone, as the API takes it: seconds since 1970
  // and the offset from UTC in minutes.
  function rangeParams(s) {
    const tz = -new Date().getTimezoneOffset();
    const params = new URLSearchParams({ tz: String(tz) });
    if (s.app) params.set('app', s.app);
    const now = new Date();
    let from, to, bucket;
    if (s.range === '24h') {
      to = new Date(now); to.setMinutes(60, 0, 0);
      from = new Date(to.getTime() - 24 * HOUR * 1000);
      bucket = 'hour';
    } else if (s.range === 'custom' && s.from && s.to) {
      from = new Date(s.from + 'T00:00:00');
      to = new Date(s.to + 'T00:00:00'); to.setDate(to.getDate() + 1);
      bucket = (to - from) <= 2 * 86400 * 1000 ? 'hour' : 'day';
    } else {
      const days = s.range === '30d' ? 30 : 7;
      to = new Date(now); to.setHours(24, 0, 0, 0);
      from = new Date(to); from.setDate(from.getDate() - days);
      bucket = 'day';
    }
    params.set('range', 'custom');
    params.set('from', String(Math.floor(from.getTime() / 1000)));
    params.set('to', String(Math.floor(to.getTime() / 1000)));
    params.set('bucket', bucket);
    return params;
  }

  async function api(view, params) {
    const response = await fetch('/api/v1/' + view + (params ? '?' + params : ''), { credentials: 'same-origin' });
    const body = await response.json().catch(() => ({}));
    if (!response.ok) {
      const message = body.error && body.error.message ? body.error.message : response.statusText;
      throw new Error(response.status === 401 ? 'This dashboard needs its access token: open it as /?token=YOUR-TOKEN' : message);
    }
    return body;
  }

  // ---- charts ---------------------------------------------------------------
  function chartBox(title, small) {
    const canvas = el('canvas', { role: 'img', 'aria-label': title });
    return { panel: el('section', { class: 'panel' }, el('h3', {}, title), el('div', { class: small ? 'chart small' : 'chart' }, canvas)), canvas };
  }
  function draw(canvas, config) {
    config.options = Object.assign({ responsive: true, maintainAspectRatio: false, animation: false }, config.options || {});
    charts.push(new Chart(canvas, config));
  }
  function lineOrBar(canvas, type, labels, datasets, extra) {
    draw(canvas, {
      type,
      data: {
        labels,
        datasets: datasets.map((d, i) => Object.assign({
          borderColor: COLORS[i % COLORS.length], backgroundColor: COLORS[i % COLORS.length] + (type === 'line' ? '33' : 'cc'),
          cubicInterpolationMode: 'monotone', pointRadius: 2, borderWidth: 2, fill: type === 'line' && datasets.length === 1,
        }, d)),
      },
      options: Object.assign({
        scales: { y: { beginAtZero: true, ticks: { precision: 0 } } },
        plugins: { legend: { display: datasets.length > 1, position: 'bottom' } },
      }, extra || {}),
    });
  }

  // ---- page frame -----------------------------------------------------------
  function empty(title, text) {
    return el('div', { class: 'empty', dataset: { empty: '1' } }, el('strong', {}, title), text);
  }
  const NO_DATA_HINT = 'Start the demo (scripts/demo), or point an application at this collector, then come back.';
  function card(labelText, value, stat, warn) {
    return el('div', { class: warn ? 'card warn' : 'card' }, el('div', { class: 'label' }, labelText),
      el('div', { class: 'value', dataset: { stat } }, value));
  }
  function showRange(range) {
    if (!range) { rangeText.textContent = ''; return; }
    rangeText.textContent = when(range.from) + ' – ' + when(range.to) + ' · by ' + range.bucket;
    document.body.dataset.from = range.from;
    document.body.dataset.to = range.to;
  }

  // ---- views ----------------------------------------------------------------
  const views = {
    async overview(s) {
      const data = await api('overview', rangeParams(s));
      showRange(data.range);
      const t = data.totals;
      const nodes = [el('div', { class: 'cards' },
        card('Devices', number(t.devices), 'devices'),
        card('New devices', number(t.newDevices), 'newDevices'),
        card('Sessions', number(t.sessions), 'sessions'),
        card('Events', number(t.events), 'events'),
        card('Active time', seconds(t.activeSeconds), 'activeSeconds'),
        card('Mean session length', seconds(t.meanSessionSeconds), 'meanSessionSeconds'),
        t.droppedEvents > 0 ? card('Events dropped by clients', number(t.droppedEvents), 'droppedEvents', true) : null)];
      if (t.events === 0) return [nodes.concat(empty('No events in this range yet.', NO_DATA_HINT)), null];
      const labels = data.series.map((r) => bucketLabel(r.t, data.range.bucket));
      const people = chartBox('Devices and sessions per ' + data.range.bucket);
      const events = chartBox('Events per ' + data.range.bucket);
      // Active time in minutes, or in seconds while no bucket holds two minutes.
      const inMinutes = data.series.some((r) => r.activeSeconds >= 120);
      const active = chartBox('Active time per ' + data.range.bucket + (inMinutes ? ' (minutes)' : ' (seconds)'));
      nodes.push(el('div', { class: 'grid' }, people.panel, events.panel, active.panel));
      const series = (key) => data.series.map((r) => r[key]);
      return [nodes, () => {
        lineOrBar(people.canvas, 'line', labels, [
          { label: 'Devices', data: series('devices') },
          { label: 'New devices', data: series('newDevices') },
          { label: 'Sessions', data: series('sessions') }]);
        lineOrBar(events.canvas, 'bar', labels, [{ label: 'Events', data: series('events') }]);
        lineOrBar(active.canvas, 'bar', labels, [{ label: inMinutes ? 'Active minutes' : 'Active seconds',
          data: data.series.map((r) => inMinutes ? Math.round(r.activeSeconds / 6) / 10 : r.activeSeconds) }], { scales: { y: { beginAtZero: true } } });
      }];
    },

    async pages(s) {
      const params = rangeParams(s);
      params.set('limit', '20');
      const data = await api('pages', params);
      showRange(data.range);
      if (data.pages.length === 0) return [[empty('No page views in this range yet.', NO_DATA_HINT)], null];
      const views = chartBox('Views per page');
      const durations = chartBox('Duration per page (seconds)');
      const table = el('table', { dataset: { table: 'pages' } },
        el('thead', {}, el('tr', {}, el('th', {}, 'Page'), el('th', { class: 'num' }, 'Views'), el('th', { class: 'num' }, 'Mean'),
          el('th', { class: 'num' }, 'Median'), el('th', {}, 'Top referrer'))),
        el('tbody', {}, data.pages.map((p) => el('tr', { dataset: { pi: label(p.pi) } },
          el('td', {}, label(p.pi)), el('td', { class: 'num', dataset: { col: 'views' } }, number(p.views)),
          el('td', { class: 'num', dataset: { col: 'mean' } }, seconds(p.meanDuration)), el('td', { class: 'num' }, seconds(p.medianDuration)),
          el('td', {}, p.topReferrer === null ? '–' : p.topReferrer, p.topReferrer === null ? null : el('span', { class: 'pill' }, number(p.topReferrerViews)))))));
      const labels = data.pages.map((p) => label(p.pi));
      return [[el('div', { class: 'grid' }, views.panel, durations.panel),
        el('h2', {}, 'Pages'), el('div', { class: 'panel table-wrap' }, table)], () => {
        lineOrBar(views.canvas, 'bar', labels, [{ label: 'Views', data: data.pages.map((p) => p.views) }], { indexAxis: 'y' });
        lineOrBar(durations.canvas, 'bar', labels, [
          { label: 'Mean', data: data.pages.map((p) => p.meanDuration || 0) },
          { label: 'Median', data: data.pages.map((p) => p.medianDuration || 0) }], { scales: { y: { beginAtZero: true } } });
      }];
    },

    async events(s) {
      const params = rangeParams(s);
      params.set('limit', '20');
      const data = await api('events', params);
      showRange(data.range);
      if (data.events.length === 0) return [[empty('No custom events in this range yet.', NO_DATA_HINT)], null];
      const over = chartBox('Custom events per ' + data.range.bucket);
      const top = chartBox('Custom events in the range');
      const table = el('table', { dataset: { table: 'events' } },
        el('thead', {}, el('tr', {}, el('th', {}, 'Event'), el('th', { class: 'num' }, 'Count'), el('th', { class: 'num' }, 'Mean duration'),
          el('th', {}, 'Most frequent arguments'))),
        el('tbody', {}, data.events.map((e) => el('tr', { dataset: { ei: label(e.ei) } },
          el('td', {}, label(e.ei)), el('td', { class: 'num', dataset: { col: 'count' } }, number(e.count)),
          el('td', { class: 'num', dataset: { col: 'mean' } }, e.timed ? seconds(e.meanDuration) : '–'),
          el('td', { class: 'args' }, e.arguments.length === 0 ? '–' : e.arguments.map((a) => el('div', {},
            el('strong', {}, a.key + ': '), a.values.map((v) => v.value + ' (' + number(v.count) + ')').join(', '))))))));
      const labels = data.buckets.map((t) => bucketLabel(t, data.range.bucket));
      return [[el('div', { class: 'grid' }, over.panel, top.panel), el('h2', {}, 'Custom events'), el('div', { class: 'panel table-wrap' }, table)], () => {
        lineOrBar(over.canvas, 'line', labels, data.series.map((line) => ({ label: label(line.ei), data: line.counts, fill: false })));
        lineOrBar(top.canvas, 'bar', data.events.map((e) => label(e.ei)), [{ label: 'Count', data: data.events.map((e) => e.count) }], { indexAxis: 'y' });
      }];
    },

    async audience(s) {
      const params = rangeParams(s);
      params.set('limit', '7');
      const data = await api('audience', params);
      showRange(data.range);
      const titles = { os_version: 'System versions', app_version: 'Application versions', channel: 'Channels', language: 'Languages',
        resolution: 'Screen resolutions', network: 'Network types', timezone: 'Time zones' };
      const shown = data.dimensions.filter((d) => d.sessions > 0);
      if (shown.length === 0) return [[empty('No sessions in this range yet.', NO_DATA_HINT)], null];
      const boxes = shown.map((d) => Object.assign(chartBox(titles[d.dimension] + ' (share of sessions)', true), { d }));
      return [[el('div', { class: 'grid' }, boxes.map((b) => b.panel))], () => {
        for (const { canvas, d } of boxes) {
          const labels = d.values.map((v) => v.value === '' ? '(empty)' : v.value);
          const values = d.values.map((v) => v.sessions);
          if (d.otherSessions > 0) { labels.push('other'); values.push(d.otherSessions); }
          draw(canvas, { type: 'doughnut', data: { labels, datasets: [{ data: values, backgroundColor: COLORS }] },
            options: { plugins: { legend: { position: 'right' } } } });
        }
      }];
    },

    async devices(s) {
      const params = rangeParams(s);
      params.set('limit', '100');
      if (s.q) params.set('q', s.q);
      const data = await api('devices', params);
      showRange(data.range);
      const search = el('input', { type: 'search', placeholder: 'Search by mid', value: s.q, 'aria-label': 'Search by mid' });
      const toolbar = el('form', { class: 'toolbar', onsubmit: (e) => { e.preventDefault(); go({ q: search.value.trim(), mid: '' }); } },
        search, el('button', { type: 'submit' }, 'Search'), el('span', { class: 'status', dataset: { stat: 'deviceTotal' } },
          number(data.total) + ' device' + (data.total === 1 ? '' : 's') + (data.total > data.devices.length ? ', newest ' + data.devices.length + ' shown' : '')));
      if (data.devices.length === 0) return [[toolbar, empty(s.q ? 'No device matches “' + s.q + '”.' : 'No devices in this range yet.', NO_DATA_HINT)], null];
      const table = el('table', { dataset: { table: 'devices' } },
        el('thead', {}, el('tr', {}, el('th', {}, 'mid'), el('th', { class: 'hide-narrow' }, 'Application'), el('th', {}, 'First seen'),
          el('th', {}, 'Last seen'), el('th', { class: 'num' }, 'Sessions'), el('th', { class: 'num hide-narrow' }, 'Events'), el('th', {}, 'Version'))),
        el('tbody', {}, data.devices.map((d) => el('tr', { class: 'clickable' + (d.mid === s.mid ? ' selected' : ''), dataset: { mid: d.mid },
          onclick: () => go({ mid: d.mid }) },
          el('td', { class: 'mono' }, d.mid), el('td', { class: 'hide-narrow' }, label(d.app)), el('td', {}, when(d.firstSeen)),
          el('td', {}, when(d.lastSeen)), el('td', { class: 'num' }, number(d.sessions)), el('td', { class: 'num hide-narrow' }, number(d.events)),
          el('td', {}, d.appVersion || '–')))));
      const nodes = [toolbar, el('div', { class: 'panel table-wrap' }, table)];
      if (!s.mid) return [nodes.concat(el('p', { class: 'args' }, 'Choose a device to see its timeline.')), null];
      const device = new URLSearchParams({ mid: s.mid, limit: '200' });
      if (s.app) device.set('app', s.app);
      const timeline = await api('device', device);
      const chart = chartBox('Events of ' + s.mid + ' per day');
      const rows = el('table', { dataset: { table: 'timeline' } },
        el('thead', {}, el('tr', {}, el('th', {}, 'Time'), el('th', {}, 'Kind'), el('th', {}, 'Name'), el('th', { class: 'num' }, 'Duration'), el('th', { class: 'hide-narrow' }, 'Session'))),
        el('tbody', {}, timeline.events.map((e) => el('tr', {}, el('td', {}, when(e.ts || e.received)), el('td', {}, e.kind),
          el('td', {}, e.name === null ? '' : String(e.name)), el('td', { class: 'num' }, e.du === null || e.du === undefined ? '' : seconds(e.du)),
          el('td', { class: 'mono hide-narrow' }, e.si === null ? '' : String(e.si))))));
      nodes.push(el('h2', {}, 'Timeline of ' + s.mid), el('div', { class: 'grid' }, chart.panel), el('div', { class: 'panel table-wrap' }, rows));
      return [nodes, () => {
        const perDay = new Map();
        for (const e of timeline.events.slice().reverse()) {
          const key = new Date((e.ts || e.received) * 1000).toLocaleDateString(undefined, { month: 'short', day: 'numeric' });
          perDay.set(key, (perDay.get(key) || 0) + 1);
        }
        lineOrBar(chart.canvas, 'bar', [...perDay.keys()], [{ label: 'Events', data: [...perDay.values()] }]);
      }];
    },

    async live(s) {
      showRange(null);
      const body = el('tbody');
      const status = el('span', { class: 'status' }, 'waiting for events…');
      let paused = false;
      let after = null;
      const pause = el('button', { type: 'button', onclick: () => {
        paused = !paused;
        pause.textContent = paused ? 'Resume' : 'Pause';
        status.textContent = paused ? 'paused' : 'live';
      } }, 'Pause');
      const table = el('table', { dataset: { table: 'live' } },
        el('thead', {}, el('tr', {}, el('th', {}, 'Received'), el('th', { class: 'hide-narrow' }, 'Application'), el('th', {}, 'mid'),
          el('th', {}, 'Kind'), el('th', {}, 'Name'), el('th', { class: 'num' }, 'Duration'))), body);
      async function poll() {
        if (paused) return;
        const params = new URLSearchParams({ limit: '50' });
        if (s.app) params.set('app', s.app);
        if (after !== null) params.set('after', String(after));
        try {
          const data = await api('live', params);
          if (data.lastId !== null) after = data.lastId;
          for (const e of data.events.slice().reverse()) {
            body.prepend(el('tr', {}, el('td', {}, new Date(e.received * 1000).toLocaleTimeString()), el('td', { class: 'hide-narrow' }, label(e.app)),
              el('td', { class: 'mono' }, e.mid || ''), el('td', {}, e.kind), el('td', {}, e.name === null ? '' : String(e.name)),
              el('td', { class: 'num' }, e.du === null || e.du === undefined ? '' : seconds(e.du))));
          }
          while (body.rows.length > 200) body.deleteRow(body.rows.length - 1);
          status.textContent = body.rows.length ? 'live · ' + body.rows.length + ' newest events' : 'no events yet: start the demo (scripts/demo)';
        } catch (error) {
          status.textContent = error.message;
        }
      }
      await poll();
      livePoll = setInterval(poll, 2000);
      return [[el('div', { class: 'toolbar' }, pause, status), el('div', { class: 'panel table-wrap' }, table)], null];
    },
  };

  // ---- rendering --------------------------------------------------------------
  async function render() {
    const s = state();
    const mine = ++renderCount;
    document.body.dataset.state = 'loading';
    document.body.dataset.view = s.view;
    if (livePoll) { clearInterval(livePoll); livePoll = null; }
    for (const link of document.querySelectorAll('#views a')) {
      link.classList.toggle('active', link.dataset.view === s.view);
      link.href = '#' + link.dataset.view + location.hash.replace(/^#[^?]*/, '').replace(/([?&])mid=[^&]*&?/, '$1');
    }
    appSelect.value = s.app;
    rangeSelect.value = s.range;
    customRange.hidden = s.range !== 'custom';
    if (s.range === 'custom') { fromInput.value = s.from; toInput.value = s.to; }
    try {
      const result = await views[s.view](s);
      if (mine !== renderCount) return;  // a newer render took over
      const [nodes, drawCharts] = result;  // every view answers [nodes, draw-the-charts or null]
      charts.forEach((c) => c.destroy());
      charts = [];
      main.replaceChildren(...[nodes].flat(2));
      if (drawCharts) drawCharts();
      document.body.dataset.state = 'ready';
    } catch (error) {
      if (mine !== renderCount) return;
      charts.forEach((c) => c.destroy());
      charts = [];
      main.replaceChildren(el('div', { class: 'error' }, error.message));
      document.body.dataset.state = 'error';
    }
  }

  async function loadApps() {
    try {
      const data = await api('apps');
      for (const a of data.apps) if (a.app !== null) appSelect.append(el('option', { value: a.app }, a.app));
    } catch (error) { /* the view itself shows what is wrong */ }
  }

  appSelect.addEventListener('change', () => go({ app: appSelect.value, mid: '' }));
  rangeSelect.addEventListener('change', () => {
    if (rangeSelect.value === 'custom') {
      customRange.hidden = false;
      const today = new Date();
      const iso = (d) => d.getFullYear() + '-' + String(d.getMonth() + 1).padStart(2, '0') + '-' + String(d.getDate()).padStart(2, '0');
      if (!toInput.value) toInput.value = iso(today);
      if (!fromInput.value) { const f = new Date(today); f.setDate(f.getDate() - 6); fromInput.value = iso(f); }
      go({ range: 'custom', from: fromInput.value, to: toInput.value });
    } else {
      go({ range: rangeSelect.value });
    }
  });
  document.getElementById('filters').addEventListener('submit', (e) => {
    e.preventDefault();
    if (fromInput.value && toInput.value) go({ range: 'custom', from: fromInput.value, to: toInput.value });
  });
  window.addEventListener('hashchange', render);
  loadApps().then(() => { appSelect.value = state().app; });
  render();
})();
