// What a closed connection means, clocks and queue depth.
import assert from 'node:assert/strict';
import { test } from 'node:test';
import { KeyframeRequests, QueueDepth, decoderIsBehind } from '../../Resources/Viewer/adaptive-quality.js';
import { ClockOffsetFilter } from '../../Resources/Viewer/decoder-clock.js';
import { Connection, Liveness, ReconnectPolicy, streamAddress } from '../../Resources/Viewer/wire-runtime.js';

test('retries grow to a limit, are jittered, and start over after a success', () => {
  const latest = new ReconnectPolicy(() => 1);
  const delays = Array.from({ length: 9 }, () => latest.closed(1006, '').delayMs);
  assert.deepEqual(delays.slice(0, 4), [400, 800, 1600, 3200]);
  assert.equal(delays[8], 15000);
  assert.equal(new ReconnectPolicy(() => 0).closed(1006, '').delayMs, 200);
  latest.succeeded();
  assert.equal(latest.closed(1011, 'Send queue overflow').delayMs, 400);
});

test('refusals are answered as they are meant', () => {
  const policy = new ReconnectPolicy(() => 1);
  assert.deepEqual(policy.closed(1008, 'Unauthorized'), { action: 'unauthorized' });
  assert.equal(policy.closed(1008, 'Authentication timeout').action, 'retry');
  assert.deepEqual(policy.closed(4001, 'Another viewer is active'), { action: 'askTakeover' });
  assert.deepEqual(policy.closed(4001, 'Replaced by newer viewer'), { action: 'replaced' });
  const busy = policy.closed(1013, 'Try again later');
  assert.ok(busy.busy && busy.delayMs >= 10000);
});

test('a link is dead after two intervals of silence, not because answers are slow', () => {
  const liveness = new Liveness();
  assert.equal(liveness.due(0), 'ping');
  liveness.heard();
  assert.equal(liveness.answered(30), 30);
  for (let now = 2000; now <= 8000; now += 2000) {
    assert.equal(liveness.due(now), now === 2000 ? 'ping' : 'wait');
    liveness.heard(); // a frame, with the answer waiting behind it
  }
  assert.equal(liveness.answered(8500), 6500);
  assert.equal(liveness.answered(8600), null);
  assert.equal(liveness.due(10000), 'ping');
  assert.equal(liveness.due(12000), 'wait');
  assert.equal(liveness.due(14000), 'dead');
});

test('a viewer never takes over by itself, and says which page it is', () => {
  const sockets = [];
  globalThis.WebSocket = class {
    static OPEN = 1;
    readyState = 1;
    sent = [];
    constructor() { sockets.push(this); }
    send(text) { this.sent.push(JSON.parse(text)); }
    close() { this.closed = true; }
  };
  const phases = [];
  const handlers = { onPhase: (phase) => phases.push(phase), onMessage: () => {} };
  const connection = new Connection('ws://host/stream', 'secret', handlers);
  const authOfNext = (...takeover) => {
    connection.connect(...takeover);
    sockets.at(-1).onopen();
    return sockets.at(-1).sent[0];
  };
  const first = authOfNext();
  assert.match(first.viewer, /^[A-Za-z0-9_-]{22}$/);
  assert.deepEqual(first, { type: 'auth', token: 'secret', takeover: false, viewer: first.viewer });
  sockets[0].onmessage({ data: '{"type":"authenticated"}' });
  sockets[0].onclose({ code: 1006, reason: '' }); // the host may still hold this one for alive
  assert.deepEqual(authOfNext(), first);
  sockets[1].onmessage({ data: '{"type":"authenticated"}' });
  sockets[1].onclose({ code: 4001, reason: 'Replaced by newer viewer' });
  assert.equal(phases.at(-1), 'replaced');
  assert.deepEqual(authOfNext(true), { ...first, takeover: true });
  assert.notEqual(new Connection('ws://host/stream', 'secret', handlers).viewer, first.viewer);
  connection.stop();
  assert.ok(sockets.every((socket) => socket.closed));
  delete globalThis.WebSocket;
});

test('the address of the stream has no token', () => {
  assert.equal(streamAddress(new URL('http://127.0.0.1:8080/#secret')), 'ws://127.0.0.1:8080/stream');
  assert.equal(streamAddress(new URL('https://viewer.example/?a=b#secret')), 'wss://viewer.example/stream');
});

test('the clock offset follows the fastest frames and forgets old ones', () => {
  const clock = new ClockOffsetFilter();
  assert.equal(clock.add(0, 500), 0);
  assert.equal(clock.add(100000, 640), 40, 'late by 40 ms');
  assert.equal(clock.add(200000, 690), 0, 'a faster one moves the offset');
  assert.equal(clock.offset, 490);
  assert.equal(clock.expectedArrival(300000), 790);
  assert.equal(clock.latency(300000, 800), 10);
  clock.addRoundTrip(8);
  assert.equal(clock.latency(300000, 800), 14);
  for (let i = 1; i <= 250; i++) clock.add(200000 + i * 100000, 690 + i * 100 + 25); // a longer road
  assert.equal(clock.offset, 515);
  assert.ok(clock.buckets.length <= 12);
});

test('the queue grows at once with jitter, shrinks slowly, and stays bounded', () => {
  const depth = new QueueDepth();
  let now = 0;
  const feed = (lateness, count) => {
    for (let i = 0; i < count; i++) depth.add(typeof lateness === 'function' ? lateness(i) : lateness, (now += 16));
    return depth.depthMs;
  };
  const calm = feed(1, 200);
  const rough = feed((i) => (i % 3 === 0 ? 60 : 0), 60);
  assert.ok(calm <= 12 && rough >= 60);
  assert.ok(feed(0, 180) > 20, 'not dropped at once');
  assert.ok(feed(0, 600) <= 12, 'but in the end');
  assert.equal(feed(5000, 200), 250);
});

test('key frames are asked for at most every 0.8 s, and a decoder may be slow to start', () => {
  let requests = 0;
  const keyframes = new KeyframeRequests(() => requests++);
  for (let now = 0; now < 1600; now += 100) keyframes.request(now);
  assert.equal(requests, 2);
  assert.equal(decoderIsBehind({ oldestFedAtMs: 0, inFlight: 8, nowMs: 400, warm: false }), false, 'starting up');
});
