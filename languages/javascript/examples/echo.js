// An upstream service that answers each datagram with its payload. SIGTERM ends it; then it prints what it has counted.

import { createSocket } from 'node:dgram';

import { End, readOptions } from './end.js';

const options = readOptions();
const end = new End(options);
const socket = createSocket('udp4');

socket.on('message', (datagram, { address, port }) => {
  const question = end.receive(datagram);
  if (question !== null) {
    // The forwarder passes the further header bytes of UDPv1 on, so the peer gets its own back.
    end.send(question.further, question.payload, (answer) => socket.send(answer, port, address));
  }
});
socket.bind(Number(options.port), '127.0.0.1', () => {
  console.log(JSON.stringify({ port: socket.address().port }));
});
process.on('SIGTERM', () => {
  socket.close();
  console.log(JSON.stringify(end.counts));
});
