'use strict';
// Request/response over topics: the requester names its reply topic and a
// correlation id in each request; the responder answers on that topic.
// Messages carry only a topic and a payload, so both travel in the payload.
// Run (from the repository root):
//   LD_LIBRARY_PATH=build/emulator node examples/request-response.js
const { connect } = require('../promises');

const HOST = { host: 'localhost', port: 55555, vpn: 'examples' };
const SERVICE = 'svc/square';

async function startResponder() {
  const responder = await connect('responder', 'SOLACE', HOST, { timeout: 10000 });
  await responder.subscribe(SERVICE, (message) => {
    const request = JSON.parse(message.payload().toString());
    const reply = { id: request.id, result: request.value * request.value };
    responder.publish(request.replyTo, JSON.stringify(reply))
      .catch((err) => console.error('reply lost:', err.message));
  });
}

async function startRequester(name) {
  const requester = await connect(name, 'SOLACE', HOST, { timeout: 10000 });
  const replyTo = `reply/${name}`;
  const pending = new Map();
  let nextId = 0;
  await requester.subscribe(replyTo, (message) => {
    const reply = JSON.parse(message.payload().toString());
    const waiter = pending.get(reply.id);
    if (waiter) waiter(reply.result);     // a late reply finds no waiter
  });

  return function request(value, timeoutMs) {
    const id = ++nextId;
    return new Promise((resolve, reject) => {
      const timer = setTimeout(() => {
        pending.delete(id);
        reject(new Error(`no reply to request ${id} within ${timeoutMs} ms`));
      }, timeoutMs);
      pending.set(id, (result) => {
        clearTimeout(timer);
        pending.delete(id);
        resolve(result);
      });
      requester.publish(SERVICE, JSON.stringify({ id, replyTo, value })).catch(reject);
    });
  };
}

async function main() {
  await startResponder();
  const request = await startRequester('requester-1');
  const results = await Promise.all([2, 3, 4].map((value) => request(value, 5000)));
  console.log('squares:', results.join(' '));
  process.exit(results.join() === '4,9,16' ? 0 : 1);
}

main().catch((err) => {
  console.error(err);
  process.exit(1);
});
