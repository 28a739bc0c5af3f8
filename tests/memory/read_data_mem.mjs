// An independent reader of data.mem, written from the file format alone: prints one
// line per record, "<start>\t<end>\t<flags>\t<topic>\t<content>" (file offsets; tabs and
// newlines in text shown as \t and \n), and exits 2 when the file does not read whole.
import { readFileSync } from 'node:fs';

const bytes = readFileSync(process.argv[2]);
if (bytes.length < 4 || bytes.toString('latin1', 0, 4) !== 'KST2') process.exit(3);
const show = (b) => b.toString('utf8').replaceAll('\\', '\\\\').replaceAll('\t', '\\t').replaceAll('\n', '\\n');
let at = 4;
const lines = [];
function u32() {
  if (at + 4 > bytes.length) throw new Error('short');
  const v = bytes.readUInt32LE(at);
  at += 4;
  return v;
}
function str() {
  const n = u32();
  if (at + n > bytes.length) throw new Error('short');
  const s = bytes.subarray(at, at + n);
  at += n;
  return s;
}
try {
  while (at < bytes.length) {
    const start = at;
    const flags = u32();
    const content = str();
    const topic = str();
    for (let k = u32(); k > 0; k--) str();
    if (flags & 0x80000000) {
      const n = u32();
      if (at + 4 * n > bytes.length) throw new Error('short');
      at += 4 * n;
    }
    lines.push(`${start}\t${at}\t${flags >>> 0}\t${show(topic)}\t${show(content)}`);
  }
} catch {
  console.log(lines.join('\n'));
  process.exit(2);
}
if (lines.length) console.log(lines.join('\n'));
