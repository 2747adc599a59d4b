// Typed use of the promise layer, with the misuse it must refuse.
import { Client, ConnectionState, LayerError, QoS, Subscription, connect } from 'kwnode/promises';
import { KWNodeMessage } from 'kwnode';

async function main(): Promise<void> {
  const client: Client = await connect('id', 'SOLACE', { host: 'h', port: 1, vpn: 'v' },
    { timeout: 1000, maxInFlight: 10, maxQueued: 100 });
  const other = new Client('id2', 'SOLACE', { host: 'h', port: 1, vpn: 'v' });
  const stop = new AbortController();
  await other.connect({ signal: stop.signal, timeout: 5000 });
  const counts: number[] = [client.inFlight, client.queued, client.maxInFlight];
  const state: ConnectionState = client.state;
  client.on('state', (s) => console.log(s === ConnectionState.CONNECTED));
  client.on('runtimeError', (what, code) => console.log(what.length + code));
  client.on('requestError', (err, request) => console.log(err.message, request.topic, request.qos));
  client.once('newListener', (event) => console.log(String(event)));

  await client.publish('a/b', 'x');
  await client.publish('q', Buffer.from('x'), { qos: QoS.GUARANTEED, signal: stop.signal });
  const handled: Subscription = await client.subscribe('a/>', (m: KWNodeMessage) => m.acknowledge());
  await handled.closed;
  const queue = await client.subscribe('q', { qos: 2, highWaterMark: 256 });
  for await (const m of queue) {
    await client.forward('audit', m, { qos: 2 });
    m.acknowledge();
    if (queue.buffered === 0) break;
  }
  const iterator = queue.messages({ signal: stop.signal });
  const first = await iterator.next();
  if (!first.done) first.value.acknowledge();
  await queue.unsubscribe({ timeout: 100 });
  await client.unsubscribe('a/>', { qos: 1 });
  try {
    await client.subscribe('a/>');
  } catch (e) {
    const err = e as LayerError;
    if (err.code === 'ERR_KWNODE_OVERFLOW') console.log(err.dropped);
  }
  await client.disconnect();

  // @ts-expect-error: a payload is a string, an ArrayBuffer or a view of one
  await client.publish('a/b', 42);
  // @ts-expect-error: qos is 1 or 2
  await client.subscribe('q', { qos: 3 });
  // @ts-expect-error: the buffer count is read-only
  queue.buffered = 0;
  // @ts-expect-error: no such event
  client.on('message', () => undefined);
  // @ts-expect-error: a code the layer never uses
  if ((new Error() as LayerError).code === 'ERR_SOMETHING') return;
  // @ts-expect-error: subscriptions come from subscribe()
  new Subscription();
}
