'use strict';
const test = require('node:test');
const assert = require('node:assert/strict');
const { parsePerfReport, parseThreads, areaOf, byArea, parseArgs, jobOf } = require('../profile');

// Rows of `perf report --sort dso,sym`, each with the area it must fall into.
const ROWS = [
  ['    20.50%  libsolclient.so    [.] emu::Broker::route(emu::Message const&)', 'stand-in broker (libsolclient.so)'],
  ['    15.00%  kwnode.node        [.] KW::Solace::Impl::Session::process(std::vector<std::shared_ptr<KW::Solace::Impl::ReceiveTask> >&)',
    'adapter receive/send path (KW::Solace)'],
  ['    10.00%  kwnode.node        [.] KWCallbackProcessor::pushBackItem(std::shared_ptr<KWCallbackItem>)',
    'bridge (callback processor, items, handlers)'],
  ['     8.25%  kwnode.node        [.] KWNodeMessage::Payload(Nan::FunctionCallbackInfo<v8::Value> const&)',
    'JavaScript-facing objects (KWNodeClient/Message)'],
  ['     6.00%  perf-4242.map      [.] LazyCompile:*runThroughput /work/main/bench/lib/driver.js:44', 'V8 JIT code (JavaScript)'],
  ['     5.00%  node               [.] v8::internal::Heap::Scavenge()', 'Node/V8 runtime'],
  ['     4.00%  libc.so.6          [.] _int_malloc', 'malloc/free'],
  ['     3.00%  [kernel.kallsyms]  [k] finish_task_switch.isra.0', 'kernel'],
  ['     1.00%  libc.so.6          [.] __memmove_avx_unaligned_erms', 'libc/libstdc++ other'],
  ['     0.50%  kwnode.node        [.] KW::DataPacket::append(char const*, unsigned long)', 'messaging core (KW::)'],
  // libuv is linked into the node binary but is its own area.
  ['     0.40%  node               [.] uv__async_io', 'libuv'],
];
const SAMPLE = ['# Samples: 4K of event \'cpu-clock:ppp\'', '# Event count (approx.): 1082250000',
  '# Overhead  Shared Object      Symbol', '#', ...ROWS.map(([line]) => line), '',
  '       |--some call graph line that must not parse as a row'].join('\n');

test('perf report rows, threads and the event count are read and grouped by area', () => {
  const { rows, eventCount } = parsePerfReport(SAMPLE);
  assert.equal(eventCount, 1082250000);
  assert.deepEqual(rows[0], { percent: 20.5, dso: 'libsolclient.so', kernel: false, symbol: 'emu::Broker::route(emu::Message const&)' });
  // Symbols with spaces and templates are kept whole.
  assert.deepEqual([rows[7].kernel, rows[1].symbol.endsWith('ReceiveTask> >&)')], [true, true]);
  assert.deepEqual(rows.map(areaOf), ROWS.map(([, area]) => area));
  // Sorted by share, and the shares add up to what was parsed.
  const areas = byArea(rows);
  assert.ok(areas.every(([, p], i) => i === 0 || areas[i - 1][1] >= p));
  assert.ok(Math.abs(areas.reduce((s, [, p]) => s + p, 0) - rows.reduce((s, r) => s + r.percent, 0)) < 1e-9);
  assert.deepEqual(parseThreads('# comm\n    61.20%  node\n     0.70%  kw receive\n#\n'),
    [{ percent: 61.2, thread: 'node' }, { percent: 0.7, thread: 'kw receive' }]);
});

test('each profiled workload gets the benchmark job it names, publish-only for guaranteed sends', () => {
  assert.deepEqual(jobOf(parseArgs(['--workload', 'guaranteed', '--count', '5000'])).params, { size: 1024, count: 5000, window: 200, consume: false });
  assert.throws(() => parseArgs(['--workload', 'latency']), /no profile/);
});
