// A peer that sends datagrams to a forwarder, checks the replies, and prints what it has counted.

import { createSocket } from 'node:dgram';

import { largestPayload } from 'vesk-framing';

import { End, readOptions } from './end.js';

const MTU = 1500;
const NUMBER_LENGTH = 8;

const options = readOptions(['count'], { window: '32', timeout: '5', further: '' });
const count = Number(options.count);
const port = Number(options.port);
const window = Number(options.window);
const further = Buffer.from(options.further, 'hex');
const lengths = largestPayload(options.framing, 4, MTU, further.length) - NUMBER_LENGTH + 1;
const end = new End(options);
const unanswered = new Set();
const socket = createSocket('udp4');
// Gives up when nothing arrives.
const deadline = setTimeout(finish, Number(options.timeout) * 1000);

socket.on('message', (datagram) => {
  deadline.refresh();
  const answer = end.receive(datagram, isAwaited);
  if (answer !== null) {
    unanswered.delete(numberOf(answer));
    fillWindow();
  }
});
// Not connected, so that no ICMP error ends the exchange: a forwarder may start later.
socket.bind(0, '127.0.0.1', fillWindow);

function fillWindow() {
  while (end.counts.sent < count && unanswered.size < window) {
    const number = end.counts.sent;
    unanswered.add(number);
    end.send(further, payloadOf(number), (datagram) => socket.send(datagram, port, '127.0.0.1'));
  }
  if (unanswered.size === 0) {
    finish();
  }
}

function isAwaited(answer) {
  return answer.payload.length >= NUMBER_LENGTH && unanswered.has(numberOf(answer))
    && further.equals(answer.further) && payloadOf(numberOf(answer)).equals(answer.payload);
}

function numberOf({ payload }) {
  return Number(Buffer.from(payload.subarray(0, NUMBER_LENGTH)).readBigUInt64BE());
}

/** Begins with the number, and has another length for each of many numbers. */
function payloadOf(number) {
  const payload = Buffer.alloc(NUMBER_LENGTH + (number * 37) % lengths);
  payload.writeBigUInt64BE(BigInt(number));
  for (let j = 0; NUMBER_LENGTH + j < payload.length; j += 1) {
    payload[NUMBER_LENGTH + j] = (number + j) % 256;
  }
  return payload;
}

function finish() {
  clearTimeout(deadline);
  socket.close();
  console.log(JSON.stringify({ ...end.counts, lost: unanswered.size }));
}
