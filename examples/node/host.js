'use strict';
// A host in Node: messages come as an async iteration, and nothing waits on Node's own thread.
//
// The library is looked for as the dynamic linker does, or at the path in ZEL_UTILS_LIB.

const koffi = require('koffi');

const library = load(process.env.ZEL_UTILS_LIB || 'libzel_utils.so.1');
const startup = library.func('int CommonUtilServiceStartup(void)');
const shutDown = library.func('void CommonUtilServiceShutDown(void)');
const setEager = library.func('void CommonUtilServiceSetEager(int eager)');
const importMessage = library.func(
  'int CommonUtilRecvMsgImport(const char* message, unsigned long length)');
const waitMessage = library.func('int CommonUtilWaitExportMsg(unsigned int timeoutMs)');
const exportMessage = library.func('int CommonUtilSendMsgExport(_Out_ void** message)');
const freeMessage = library.func('void CommonUtilFreeExportMsg(void* message)');

const WAIT_MS = 1000; // of one wait; only how soon a silent library is noticed depends on it
const PATIENCE_MS = 10000;

function load(path) {
  try {
    return koffi.load(path);
  } catch (error) {
    console.error(`${path}: ${error.message}`);
    process.exit(1);
  }
}

function send(request) {
  const text = JSON.stringify(request);
  if (importMessage(text, Buffer.byteLength(text)) !== 1) throw new Error('the request was refused');
}

// The oldest message that waits, or null. What the library handed out goes back at once.
function take() {
  const message = [null];
  if (exportMessage(message) !== 1) return null;
  try {
    return JSON.parse(koffi.decode(message[0], 'char', -1));
  } finally {
    freeMessage(message[0]);
  }
}

// Waits on a thread of Node's pool; resolves to true when a message has come.
function arrival(timeoutMs) {
  return new Promise((resolve, reject) => {
    waitMessage.async(timeoutMs, (error, came) => (error ? reject(error) : resolve(came === 1)));
  });
}

// Replies and notifications in the order of the library, until it is silent for PATIENCE_MS. Whoever
// leaves the loop leaves no wait behind, so the service may be shut down then.
async function* messages() {
  let silentMs = 0;
  while (silentMs < PATIENCE_MS) {
    if (!(await arrival(WAIT_MS))) silentMs += WAIT_MS;
    for (let message = take(); message !== null; message = take()) {
      silentMs = 0;
      yield message;
    }
  }
}

async function main() {
  if (startup() !== 0) throw new Error('the service does not start');
  setEager(1);
  try {
    send({ cmd: 6, sno: 1, description: 'SetUserInfo',
           param: { proxyServer: '', proxyPort: 0, serverURL: 'http://127.0.0.1:9/' } });
    send({ cmd: 11, sno: 2, description: 'last' });
    for await (const message of messages()) {
      console.log(JSON.stringify(message));
      if (message.sno === 2) return;
    }
    throw new Error('no reply');
  } finally {
    shutDown();
  }
}

main().catch((error) => {
  console.error(error.message);
  process.exitCode = 1;
});
