#!/usr/bin/node
/*
 * A small TLS server that takes rendered settings: how a service in Node.js follows its level.
 *
 *   tls_service.js [--pid-file PATH] SETTINGS.conf CERTIFICATE.pem [PORT]
 *
 * SETTINGS.conf is what is rendered from the template in services/nodejs. Serves on the loopback
 * interface, on a port of the kernel's choice without PORT. Answers each line with what was
 * negotiated. SIGHUP makes new connections take the settings as they are then; those that are open
 * stay as they are. SIGTERM ends it.
 */
'use strict';

const crypto = require('crypto');
const fs = require('fs');
const tls = require('tls');
const {parseArgs} = require('util');

const handshakeMilliseconds = 5000;
const silenceMilliseconds = 60000;
const longestLine = 1024;

function contextOptions(settingsPath, certificatePath) {
  const settings = JSON.parse(fs.readFileSync(settingsPath, 'utf8'));
  const certificate = fs.readFileSync(certificatePath);
  return {
    ...settings,
    ...(settings.dhparam && {dhparam: fs.readFileSync(settings.dhparam)}),
    cert: certificate,
    key: certificate,
    secureOptions: crypto.constants.SSL_OP_NO_TICKET,
    // A session belongs to the settings that it was made with: none of a weaker level is resumed at
    // a stronger one.
    sessionIdContext: crypto.randomBytes(16).toString('hex'),
    ticketKeys: crypto.randomBytes(48),
  };
}

/* Calls back once for each line; a connection whose line is too long is ended. */
function onLines(socket, callback) {
  let line = 0;
  socket.on('data', (piece) => {
    for (const byte of piece) {
      line = byte === 0x0a ? 0 : line + 1;
      if (line > longestLine) return void socket.destroy();
      if (line === 0) callback();
    }
  });
}

function serve(socket) {
  const answer = `${socket.getProtocol()} ${socket.getCipher().name}\n`;
  socket.setTimeout(silenceMilliseconds, () => socket.destroy());
  socket.on('error', () => {});  // a peer that goes away is nothing to report
  onLines(socket, () => socket.write(answer));
}

function main() {
  const {values, positionals} =
      parseArgs({options: {'pid-file': {type: 'string'}}, allowPositionals: true});
  const [settingsPath, certificatePath, port = '0'] = positionals;
  if (certificatePath === undefined) {
    console.error('usage: tls_service.js [--pid-file PATH] SETTINGS.conf CERTIFICATE.pem [PORT]');
    process.exit(2);
  }
  const pidFile = values['pid-file'];
  const server = tls.createServer(
      {...contextOptions(settingsPath, certificatePath), handshakeTimeout: handshakeMilliseconds},
      serve);

  process.on('SIGHUP', () => {
    try {
      server.setSecureContext(contextOptions(settingsPath, certificatePath));
    } catch (error) {  // a service that cannot have its new settings goes on with the old
      console.error(`tls_service.js: keeping the former settings: ${error.message}`);
    }
  });
  process.on('SIGTERM', () => {
    if (pidFile !== undefined) fs.unlinkSync(pidFile);
    process.exit(0);
  });
  server.listen(Number(port), '127.0.0.1', () => {
    if (pidFile !== undefined) fs.writeFileSync(pidFile, `${process.pid}\n`);
    console.log(`listening on 127.0.0.1:${server.address().port}`);
  });
}

main();
