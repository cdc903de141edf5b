// One streamed chat reply through the official openai SDK, for bench_e2e to time as a whole
// process. Prints "CHUNKS BYTES": the chunks that carried content and the length of the reply
// (their contents joined) in UTF-8 bytes, which bench_e2e checks against what it served.
//
// usage: node stream.mjs BASE_URL MODEL   (BASE_URL such as http://127.0.0.1:PORT)
import OpenAI from 'openai';

const [baseURL, model] = process.argv.slice(2);
if (!baseURL || !model) {
  process.stderr.write('usage: node stream.mjs BASE_URL MODEL\n');
  process.exit(2);
}

// No retries: a failed request must fail the run, not be made again behind the timer.
const client = new OpenAI({ apiKey: 'sk-test', baseURL: `${baseURL}/v1`, maxRetries: 0 });
const stream = await client.chat.completions.create({
  model,
  messages: [{ role: 'user', content: 'Write a reply to this mail.' }],
  stream: true,
});

let reply = '';
let chunks = 0;
for await (const chunk of stream) {
  const content = chunk.choices[0]?.delta?.content;
  if (content) {
    reply += content;
    chunks += 1;
  }
}
process.stdout.write(`${chunks} ${Buffer.byteLength(reply, 'utf8')}\n`);
