// The inspector's page. Everything shown from the data (names, values, messages) is untrusted text: it is
// only ever put into the page with textContent, never parsed as markup.
"use strict";

(function () {
  const $ = (id) => document.getElementById(id);
  const token = new URLSearchParams(location.search).get("t") || "";

  // ---- data sources: the server, or the data embedded in a self-contained file ----

  async function getJson(path, params) {
    const query = new URLSearchParams(Object.assign({ t: token }, params));
    const response = await fetch(path + "?" + query.toString(), { cache: "no-store" });
    const body = await response.json();
    if (!response.ok) throw new Error(body.error || "the server answered " + response.status);
    return body;
  }

  const served = {
    meta: () => getJson("/api/meta", {}),
    page: (offset, records) => getJson("/api/page", { offset, records }),
    find: (q, from) => getJson("/api/find", { q, from }),
    setEncoding: (name) => getJson("/api/encoding", { name }),
  };

  // The embedded window answers as the server would, within the records it holds.
  function embeddedSource(data) {
    const w = data.window;
    const sizeOf = (r) => data.meta.groups[r.group].recordSize;
    return {
      meta: async () => data.meta,
      page: async (offset, records) => {
        if (offset < w.start || offset >= Math.max(w.end, w.start + 1)) {
          throw new Error("this file holds bytes " + w.start + " to " + w.end + " only; run blockproc view for the rest");
        }
        const list = w.records.filter((r) => r.offset + sizeOf(r) > offset).slice(0, records);
        const start = list.length && list[0].offset <= offset ? list[0].offset : offset;
        let end = list.length ? list[list.length - 1].offset + sizeOf(list[list.length - 1]) : w.end;
        if (list.length < records) end = w.end;
        return { start, end, hex: w.hex.slice((start - w.start) * 2, (end - w.start) * 2), records: list };
      },
      find: async (q, from) => {
        for (const r of w.records) {
          if (r.offset < from) continue;
          const j = r.values.findIndex((v) => v.includes(q));
          if (j >= 0) return { found: { group: r.group, record: r.record, field: j, offset: r.offset } };
        }
        return { done: true };
      },
      setEncoding: async () => {
        throw new Error("a saved page keeps the encoding it was written with");
      },
    };
  }

  const source = EMBEDDED ? embeddedSource(EMBEDDED) : served;

  // ---- state ----

  let meta = null;
  let win = null; // the window shown: start, end, bytes, records
  let owners = []; // per byte of the window: { rec, field, attr } or a range kind
  let selected = null; // { rec, field }
  let perPage = 64;

  const el = (tag, cls, text) => {
    const e = document.createElement(tag);
    if (cls) e.className = cls;
    if (text !== undefined) e.textContent = text;
    return e;
  };
  const hex2 = (n) => n.toString(16).padStart(2, "0");
  const offText = (n) => n.toString(16).padStart(8, "0");
  const setStatus = (text) => { $("status").textContent = text; };

  function groupOf(offset) {
    return meta.groups.find((g) => g.count > 0 && offset >= g.offset && offset < g.offset + g.count * g.recordSize);
  }

  // ---- the bytes ----

  // Who owns each byte of the window: a field or attribute byte of a shown record, a count prefix, or
  // bytes no block reads.
  function mapOwners() {
    owners = new Array(win.end - win.start).fill(null);
    const put = (from, length, owner) => {
      for (let o = Math.max(from, win.start); o < Math.min(from + length, win.end); o++) owners[o - win.start] = owner;
    };
    for (const g of meta.groups) {
      if (g.countOffset >= 0) put(g.countOffset, g.countLength, { kind: "count", group: g });
    }
    if (meta.covered < meta.size) put(meta.covered, meta.size - meta.covered, { kind: "notread" });
    win.records.forEach((r, ri) => {
      const g = meta.groups[r.group];
      put(r.offset, g.recordSize, { kind: "unused", rec: ri });
      g.fields.forEach((f, j) => {
        put(r.offset + f.pos, f.length, { kind: "field", rec: ri, field: j });
        if (f.attrPos >= 0) put(r.offset + f.attrPos, 1, { kind: "attr", rec: ri, field: j });
      });
    });
  }

  // The findings marked on the bytes: the most likely one (the others are listed).
  const marked = () => meta.findings.filter((f) => f.rank === 1);

  // Bytes of the window that warnings and findings point at.
  function marks() {
    const warn = new Set();
    const finding = new Set();
    win.records.forEach((r) => {
      const g = meta.groups[r.group];
      for (const issue of r.issues) {
        const f = g.fields[issue.field];
        for (let o = 0; o < f.length; o++) warn.add(r.offset + f.pos + o);
      }
      for (const fd of marked()) {
        if (fd.block !== g.block || fd.field === undefined) continue;
        const f = g.fields.find((x) => x.name === fd.field);
        if (!f) continue;
        for (let o = 0; o < f.length; o++) finding.add(r.offset + f.pos + o);
      }
    });
    for (const w of meta.warnings) {
      for (let o = Math.max(w.offset, win.start); o < Math.min(w.offset + Math.max(w.length, 1), win.end); o++) warn.add(o);
    }
    for (const fd of marked()) {
      for (const range of fd.ranges || []) {
        const end = Math.min(range.offset + Math.max(range.length, 1), win.end);
        for (let o = Math.max(range.offset, win.start); o < end; o++) finding.add(o);
      }
    }
    return { warn, finding };
  }

  function byteSpan(o, text, m) {
    const s = el("span", "b", text);
    s.dataset.o = String(o);
    const owner = owners[o - win.start];
    if (owner) {
      if (owner.kind === "field") s.classList.add("c" + (owner.field % 8));
      else if (owner.kind === "attr") s.classList.add("attrbyte");
      else if (owner.kind === "count" || owner.kind === "notread") s.classList.add(owner.kind);
      if (owner.rec !== undefined && win.records[owner.rec].offset === o) s.classList.add("rs");
    }
    if (m.warn.has(o)) s.classList.add("warn");
    if (m.finding.has(o)) s.classList.add("finding");
    return s;
  }

  // What each byte of the window shows in the text column: printable ASCII as itself, other bytes as ".",
  // and in a text field each character of the encoding on its first byte (its other bytes show nothing).
  function textColumn(bytes) {
    const out = Array.from(bytes, (b) => (b >= 0x20 && b < 0x7f ? String.fromCharCode(b) : "."));
    const enc = meta.encoding;
    const label = enc === "utf-8" ? "utf-8" : enc === "cp949" || enc === "euc-kr" ? "euc-kr" : null;
    const decoder = label ? new TextDecoder(label, { fatal: true }) : null;
    const isText = (i) => {
      const owner = owners[i];
      return owner && owner.kind === "field" && meta.groups[win.records[owner.rec].group].fields[owner.field].type === "text";
    };
    for (let i = 0; i < bytes.length; i++) {
      const b = bytes[i];
      if (b < 0x80 || !isText(i)) continue;
      if (enc === "latin1") {
        if (b >= 0xa0) out[i] = String.fromCharCode(b);
        continue;
      }
      if (!decoder) continue;
      const n = label === "euc-kr" ? 2 : b >= 0xf0 ? 4 : b >= 0xe0 ? 3 : 2;
      if (i + n > bytes.length || !isText(i + n - 1)) continue;
      let ch;
      try {
        ch = decoder.decode(bytes.subarray(i, i + n));
      } catch (e) {
        continue; // not a character of the encoding: the bytes stay "."
      }
      if ([...ch].length !== 1) continue;
      out[i] = ch;
      for (let k = 1; k < n; k++) out[i + k] = "";
      i += n - 1;
    }
    return out;
  }

  function renderBytes() {
    const view = $("hexview");
    view.textContent = "";
    const m = marks();
    const frag = document.createDocumentFragment();
    const bytes = new Uint8Array((win.end - win.start));
    for (let i = 0; i < bytes.length; i++) bytes[i] = parseInt(win.hex.substr(i * 2, 2), 16);
    const text = textColumn(bytes);
    const first = win.start - (win.start % 16);
    for (let line = first; line < win.end; line += 16) {
      const row = el("div", "line");
      row.appendChild(el("span", "off", offText(line)));
      const hex = el("span", "hex");
      const txt = el("span", "txt");
      for (let o = line; o < line + 16; o++) {
        if (o < win.start || o >= win.end) {
          hex.appendChild(el("span", "b pad", "  "));
          txt.appendChild(el("span", "b pad", " "));
          continue;
        }
        hex.appendChild(byteSpan(o, hex2(bytes[o - win.start]), m));
        const t = byteSpan(o, text[o - win.start], m);
        if (text[o - win.start].length > 1 || text[o - win.start].charCodeAt(0) > 0x7f) t.classList.add("wide");
        txt.appendChild(t);
      }
      row.appendChild(hex);
      row.appendChild(txt);
      frag.appendChild(row);
    }
    view.appendChild(frag);
  }

  // ---- the table ----

  function renderTable() {
    const body = $("fields").tBodies[0];
    body.textContent = "";
    const frag = document.createDocumentFragment();
    const findingFields = new Set(marked().filter((f) => f.field !== undefined).map((f) => f.block + "\u0000" + f.field));
    win.records.forEach((r, ri) => {
      const g = meta.groups[r.group];
      const head = el("tr", "rec");
      const title = g.block + (g.count > 1 || g.paged ? "[" + r.record + "]" : "");
      const cell = el("td", "", title + "  @ " + r.offset + " (0x" + r.offset.toString(16) + "), " + g.recordSize + " bytes");
      cell.colSpan = 9;
      head.appendChild(cell);
      frag.appendChild(head);
      g.fields.forEach((f, j) => {
        const tr = el("tr", "fld");
        tr.dataset.rec = String(ri);
        tr.dataset.group = String(r.group);
        tr.dataset.record = String(r.record);
        tr.dataset.field = f.name;
        tr.dataset.index = String(j);
        tr.dataset.offset = String(r.offset + f.pos);
        tr.dataset.length = String(f.length);
        const sw = el("span", "swatch b c" + (j % 8));
        const recCell = el("td", "num", String(r.record));
        const nameCell = el("td", "name");
        nameCell.appendChild(sw);
        nameCell.appendChild(document.createTextNode(f.name));
        tr.appendChild(recCell);
        tr.appendChild(nameCell);
        tr.appendChild(el("td", "kor", f.kor));
        tr.appendChild(el("td", "", f.type + (f.decimals ? "(" + f.decimals + ")" : "")));
        tr.appendChild(el("td", "num", String(r.offset + f.pos)));
        tr.appendChild(el("td", "num", String(f.length)));
        // A long value is cut short in its cell; the whole of it is the cell's tooltip (plain text).
        const value = el("td", "value" + (f.kind === "number" ? " num" : ""), r.values[j]);
        value.title = r.values[j];
        const raw = el("td", "raw", r.raw[j]);
        raw.title = r.raw[j];
        tr.appendChild(value);
        tr.appendChild(raw);
        tr.appendChild(el("td", "attr", r.attrs[j] === null ? "" : r.attrs[j]));
        if (r.issues.some((i) => i.field === j)) tr.classList.add("warn");
        if (findingFields.has(g.block + "\u0000" + f.name)) tr.classList.add("finding");
        frag.appendChild(tr);
      });
    });
    body.appendChild(frag);
  }

  // ---- warnings and findings ----

  function renderProblems() {
    const list = $("problem-list");
    list.textContent = "";
    const add = (cls, text, offset, fieldName) => {
      const li = el("li", cls, text);
      if (offset !== undefined && offset >= 0) {
        li.dataset.offset = String(offset);
        li.addEventListener("click", () => show(offset, fieldName));
      }
      list.appendChild(li);
    };
    if (meta.checkError) add("info", "the layout check was not made: " + meta.checkError);
    for (const f of meta.findings) add("finding", "check #" + f.rank + ": " + f.message, f.offset, f.field);
    for (const w of meta.warnings) add("warning", w.message, w.offset);
    let shown = 0;
    for (const r of win.records) {
      for (const i of r.issues) {
        add("warning", i.message, i.offset, meta.groups[r.group].fields[i.field].name);
        shown++;
      }
    }
    $("problem-count").textContent = "(" + meta.findings.length + " findings, " + (meta.warnings.length + shown) +
      " warnings; value warnings of the records shown)";
  }

  // ---- selection: a field and its bytes ----

  function clearSelection() {
    for (const e of document.querySelectorAll(".sel")) e.classList.remove("sel");
    selected = null;
  }

  function select(ri, j, attr, scroll) {
    clearSelection();
    const r = win.records[ri];
    const f = meta.groups[r.group].fields[j];
    const from = r.offset + (attr ? f.attrPos : f.pos);
    const length = attr ? 1 : f.length;
    for (let o = from; o < from + length; o++) {
      for (const s of document.querySelectorAll('#hexview .b[data-o="' + o + '"]')) s.classList.add("sel");
    }
    const row = document.querySelector('#fields tr.fld[data-rec="' + ri + '"][data-index="' + j + '"]');
    if (row) {
      row.classList.add("sel");
      if (scroll) row.scrollIntoView({ block: "nearest" });
    }
    const first = document.querySelector('#hexview .hex .b[data-o="' + from + '"]');
    if (first && scroll) first.scrollIntoView({ block: "nearest" });
    selected = { rec: ri, field: j };
    setStatus(statusText() + " · selected " + f.name + ": bytes " + from + "–" + (from + length - 1) + " (" + length + ")");
  }

  $("hexview").addEventListener("click", (e) => {
    const b = e.target.closest(".b");
    if (!b || b.dataset.o === undefined) return;
    const owner = owners[Number(b.dataset.o) - win.start];
    if (owner && (owner.kind === "field" || owner.kind === "attr")) select(owner.rec, owner.field, owner.kind === "attr", true);
    else clearSelection();
  });

  $("fields").addEventListener("click", (e) => {
    const row = e.target.closest("tr.fld");
    if (!row) return;
    const ri = Number(row.dataset.rec);
    select(ri, Number(row.dataset.index), false, true);
  });

  // ---- windows and navigation ----

  function statusText() {
    if (!win) return "";
    const parts = [];
    const byGroup = new Map();
    for (const r of win.records) {
      const g = meta.groups[r.group];
      const e = byGroup.get(r.group) || { g, first: r.record, last: r.record };
      e.last = r.record;
      byGroup.set(r.group, e);
    }
    for (const e of byGroup.values()) {
      parts.push(e.g.block + " records " + e.first.toLocaleString("en") + "–" + e.last.toLocaleString("en") +
        " of " + e.g.count.toLocaleString("en"));
    }
    return (parts.join("; ") || "no records here") + " · bytes " + win.start.toLocaleString("en") + "–" +
      win.end.toLocaleString("en") + " of " + meta.size.toLocaleString("en");
  }

  async function show(offset, fieldName) {
    try {
      win = await source.page(offset, perPage);
    } catch (err) {
      setStatus(String(err.message || err));
      return;
    }
    mapOwners();
    renderBytes();
    renderTable();
    renderProblems();
    setStatus(statusText());
    $("prev").disabled = win.start <= 0;
    $("next").disabled = (win.next === undefined ? win.end : win.next) >= meta.size;
    const ri = win.records.findIndex((r) => offset >= r.offset && offset < r.offset + meta.groups[r.group].recordSize);
    if (ri >= 0 && fieldName !== undefined) {
      const j = meta.groups[win.records[ri].group].fields.findIndex((f) => f.name === fieldName);
      if (j >= 0) select(ri, j, false, true);
    }
  }

  function previousStart() {
    const g = groupOf(win.start - 1);
    if (g) return Math.max(g.offset, win.start - perPage * g.recordSize);
    return Math.max(0, win.start - 1024);
  }

  function parseOffset(text) {
    text = text.trim().replace(/[,_]/g, "");
    if (/^0x[0-9a-f]+$/i.test(text)) return parseInt(text.slice(2), 16);
    if (/^[0-9]+$/.test(text)) return Number(text);
    return NaN;
  }

  $("next").addEventListener("click", () => show(win.next === undefined ? win.end : win.next));
  $("prev").addEventListener("click", () => show(previousStart()));
  $("per-page").addEventListener("change", () => {
    perPage = Number($("per-page").value);
    show(win ? win.start : 0);
  });
  $("goto-record-btn").addEventListener("click", () => {
    const g = meta.groups[Number($("goto-block").value)];
    const n = Number($("goto-record").value);
    if (!g || !Number.isInteger(n) || n < 0 || n >= g.count) {
      setStatus("no record " + $("goto-record").value + (g ? " in " + g.block + " (it has " + g.count + ")" : ""));
      return;
    }
    show(g.offset + n * g.recordSize);
  });
  $("goto-offset-btn").addEventListener("click", () => {
    const o = parseOffset($("goto-offset").value);
    if (!Number.isFinite(o) || o < 0 || o >= meta.size) {
      setStatus("no byte at offset " + $("goto-offset").value + " (the data holds " + meta.size + " bytes)");
      return;
    }
    show(o).then(() => {
      const owner = owners[o - win.start];
      if (owner && (owner.kind === "field" || owner.kind === "attr")) select(owner.rec, owner.field, owner.kind === "attr", true);
    });
  });

  // Finds the next value after the selected record (or from the window's start), a stretch per request.
  let findFrom = 0;
  let lastQuery = "";
  $("find-btn").addEventListener("click", async () => {
    const q = $("find-text").value;
    if (!q) return;
    if (q !== lastQuery) {
      lastQuery = q;
      findFrom = win ? win.start : 0;
    }
    let from = findFrom;
    for (;;) {
      setStatus("finding " + JSON.stringify(q) + " from byte " + from.toLocaleString("en") + "…");
      let answer;
      try {
        answer = await source.find(q, from);
      } catch (err) {
        setStatus(String(err.message || err));
        return;
      }
      if (answer.found) {
        const f = answer.found;
        const g = meta.groups[f.group];
        findFrom = f.offset + g.recordSize;
        await show(f.offset, g.fields[f.field].name);
        return;
      }
      if (answer.done) {
        setStatus("no value holds " + JSON.stringify(q) + " after byte " + findFrom.toLocaleString("en"));
        findFrom = 0;
        return;
      }
      from = answer.next;
    }
  });
  $("find-text").addEventListener("keydown", (e) => { if (e.key === "Enter") $("find-btn").click(); });

  $("encoding").addEventListener("change", async () => {
    try {
      await source.setEncoding($("encoding").value);
      meta = await source.meta();
      await show(win ? win.start : 0);
    } catch (err) {
      setStatus(String(err.message || err));
      $("encoding").value = meta.encoding;
    }
  });

  // ---- start ----

  async function start() {
    try {
      meta = await source.meta();
    } catch (err) {
      setStatus("cannot load the data: " + String(err.message || err));
      return;
    }
    $("code").textContent = meta.code;
    $("tran-title").textContent = meta.title;
    $("file").textContent = meta.file + " · " + meta.mode + " · " + meta.size.toLocaleString("en") + " bytes";
    document.title = meta.code + " · " + meta.file + " · blockproc view";
    for (const name of meta.encodings) $("encoding").appendChild(el("option", "", name));
    $("encoding").value = meta.encoding;
    meta.groups.forEach((g, k) => {
      const o = el("option", "", g.block + " (" + g.count.toLocaleString("en") + ")");
      o.value = String(k);
      $("goto-block").appendChild(o);
    });
    if (EMBEDDED) {
      const n = EMBEDDED.window.records.length;
      const all = meta.groups.reduce((sum, g) => sum + g.count, 0);
      const bound = $("bound");
      bound.hidden = false;
      bound.textContent = "A saved page: it holds " + n.toLocaleString("en") + " of " + all.toLocaleString("en") +
        " records (bytes " + EMBEDDED.window.start + " to " + EMBEDDED.window.end + "), at most " +
        EMBEDDED.bound.toLocaleString("en") + ". Run blockproc view on the data for the rest.";
      $("encoding").disabled = true;
      perPage = Math.max(n, 1);
    }
    await show(0);
  }

  start();
})();
