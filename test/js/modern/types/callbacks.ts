// Typed use of the callback API: every accepted shape compiles; each line
// after @ts-expect-error is a misuse the declarations must refuse.
import {
  CompletionError, ConnectionData, ConnectionState, EventCode, KWNodeClient, KWNodeEvent,
  KWNodeMessage, LibraryError, QoS
} from 'kwnode';

const data: ConnectionData = { host: 'h', port: 55555, vpn: 'v', user: 'u', password: 'p', use_ssl: true, trust_store: '/etc/ssl/certs' };
const client = new KWNodeClient('id', 'SOLACE', data, (event: KWNodeEvent) => {
  const code: EventCode | 0 = event.eventCode();
  if (code === EventCode.CONNECTION_STATE && event.eventSubCode() === ConnectionState.CONNECTED) return;
  const text: string = event.what();
  const carried: KWNodeMessage | null = event.message();
});
new KWNodeClient(42, 'SOLACE', { host: 'h', port: '1', vpn: 'v', use_ssl: 'yes' });

const done = (err: CompletionError | null) => { if (err) console.log(err.message, err.errno); };
const handler = (m: KWNodeMessage) => {
  const bytes: Buffer = m.payload();
  const qos: QoS = m.qos();
  const facts: [string, boolean, boolean] = [m.topic(), m.isAckRequired(), m.isRedelivered()];
  m.acknowledge();
  client.forward('a/b', m);
  client.forward('a/b', m, done);
  client.forward('q', QoS.GUARANTEED, m);
  client.forward('q', 2, m, done);
};

client.connect();
const state: ConnectionState = client.getConnectionState();
client.publish('a/b', 'text');
client.publish('a/b', Buffer.from([1, 2]), done);
client.publish('q', 2, 'text');
client.publish('q', QoS.AT_MOST_ONCE, Buffer.alloc(0), done);
client.subscribe('a/>', handler);
client.subscribe('a/>', handler, done);
client.subscribe('q', 2, handler, done);
client.subscribe('q', 2, handler, null);
client.unsubscribe('a/>');
client.unsubscribe('a/>', done);
client.unsubscribe('q', 2);
client.unsubscribe('q', 2, done);
client.disconnect();
try { client.connect(); } catch (e) { console.log((e as LibraryError).code); }

// @ts-expect-error: the QoS form of subscribe needs four arguments
client.subscribe('q', 2, handler);
// @ts-expect-error: qos is 1 or 2
client.publish('q', 3, 'text');
// @ts-expect-error: a payload is a string, an ArrayBuffer or a view of one
client.publish('a/b', { price: 1 });
// @ts-expect-error: only a received message can be forwarded
client.forward('a/b', 'text');
// @ts-expect-error: vpn is required
new KWNodeClient('id', 'SOLACE', { host: 'h', port: 1 });
// @ts-expect-error: a misspelt key
new KWNodeClient('id', 'SOLACE', { host: 'h', port: 1, vpn: 'v', usessl: true });
// @ts-expect-error: "TRUE" does not switch SSL on
new KWNodeClient('id', 'SOLACE', { host: 'h', port: 1, vpn: 'v', use_ssl: 'TRUE' });
// @ts-expect-error: there is no other destination type
new KWNodeClient('id', 'KAFKA', data);
// @ts-expect-error: there is no state 5
if (client.getConnectionState() === 5) client.disconnect();
// @ts-expect-error: a completion may be null
client.publish('a/b', 'x', (err) => console.log(err.errno));
client.subscribe('a/b', (m) => {
  // @ts-expect-error: message fields are methods
  const topic: string = m.topic;
});
