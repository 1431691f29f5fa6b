#!/usr/bin/env node
// Writes Node's readings (browsers' readings) of the spellings in
// web_url_readings.txt; given the unit test program, also checks that Node
// reads each spelling that the test generates as the URL the test expects:
//   node tests/unit/web_url_readings.js [build/ci/tests/corvane_unit_tests]
'use strict';
const fs = require('fs');
const os = require('os');
const path = require('path');

// Bytes (\xNN escapes undone) decoded as UTF-8, as the dispatcher reads them.
const decode = (line) => new TextDecoder().decode(Buffer.from(
  line.replace(/\\x([0-9a-fA-F]{2})/g, (_, hex) => String.fromCharCode(parseInt(hex, 16))), 'latin1'));
const reading = (spelling) => { try { return new URL(decode(spelling)).href; } catch { return 'rejected'; } };

const table = path.join(__dirname, 'web_url_readings.txt');
fs.writeFileSync(table, fs.readFileSync(table, 'latin1').split('\n').map((line) =>
  line === '' || line.startsWith('#') ? line : `${line.split('\t')[0]}\t${reading(line.split('\t')[0])}`)
  .join('\n'), 'latin1');

if (process.argv[2]) {
  const dump = path.join(os.tmpdir(), `web_url_spellings.${process.pid}`);
  require('child_process').execFileSync(process.argv[2], ['--gtest_filter=WebUrlTest.*'],
    { env: { ...process.env, CORVANE_WEB_URL_SPELLINGS: dump }, stdio: 'inherit' });
  const rows = fs.readFileSync(dump, 'latin1').split('\n').filter((row) => row !== '');
  fs.unlinkSync(dump);
  const wrong = rows.map((row) => row.split('\t')).filter(([spelling, href]) => reading(spelling) !== href);
  for (const [spelling, href] of wrong) console.log(`${spelling}: Node reads ${reading(spelling)}, not ${href}`);
  console.log(`${rows.length} generated spellings, ${wrong.length} read otherwise by Node`);
  process.exitCode = wrong.length || !rows.length ? 1 : 0;
}
