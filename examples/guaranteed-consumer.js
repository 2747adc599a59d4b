'use strict';
// A guaranteed consumer: orders published to a queue are handled and then
// acknowledged; one that fails is not acknowledged, so the queue hands it out
// again when the consumer restarts its flow. Run (from the repository root):
//   LD_LIBRARY_PATH=build/emulator SOLCLIENT_EMULATOR_QUEUES=orders node examples/guaranteed-consumer.js
const { connect } = require('../promises');

const HOST = { host: 'localhost', port: 55555, vpn: 'examples' };
const QUEUE = 'orders';

async function main() {
  const producer = await connect('order-producer', 'SOLACE', HOST, { timeout: 10000 });
  const consumer = await connect('order-consumer', 'SOLACE', HOST, { timeout: 10000 });

  const handled = new Set();
  let failOnce = true;
  let allHandled;
  const finished = new Promise((resolve) => { allHandled = resolve; });

  function handle(message) {
    const order = message.payload().toString();
    if (order === 'order #3' && failOnce) {
      failOnce = false;
      console.log(`failed ${order}; not acknowledged, the queue keeps it`);
      return;
    }
    console.log(`handled ${order}`);
    handled.add(order);
    message.acknowledge();          // only now does the broker forget it
    if (handled.size === 5) allHandled();
  }

  let orders = await consumer.subscribe(QUEUE, handle, { qos: 2 });
  // A later failure of the queue binding (there is no success report).
  orders.closed.catch((err) => console.error('consumer stopped:', err.message));

  for (let i = 1; i <= 5; i++) {
    await producer.publish(QUEUE, `order #${i}`, { qos: 2 });   // resolves once spooled
  }
  console.log('5 orders spooled');

  // Restart the consumer: its flow closes and the unacknowledged order returns.
  await new Promise((resolve) => setTimeout(resolve, 200));
  await orders.unsubscribe();
  orders = await consumer.subscribe(QUEUE, handle, { qos: 2 });

  await finished;
  console.log('all 5 orders handled');
  process.exit(0);
}

main().catch((err) => {
  console.error(err);
  process.exit(1);
});
