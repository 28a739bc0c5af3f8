// Another program on a port: `node fake_resident.mjs <port> <version|foreign>`.
// With a version it answers /health like a resident of that version and exits
// on an accepted /shutdown; "foreign" answers every request with a plain page.
import http from 'node:http';

const [port, kind] = process.argv.slice(2);
const server = http.createServer((req, res) => {
  if (kind === 'foreign') {
    res.end('<html>something else</html>');
    return;
  }
  if (req.url === '/health') {
    res.end(JSON.stringify({ ok: true, app: 'Kestrune', version: kind }));
  } else if (req.url === '/shutdown' && req.method === 'POST' &&
             req.headers['x-kst-control'] === 'shutdown') {
    res.end(JSON.stringify({ ok: true, shutting_down: true }));
    setTimeout(() => process.exit(0), 50);
  } else {
    res.statusCode = 404;
    res.end('not found');
  }
});
server.listen(Number(port), '127.0.0.1', () => console.log('listening'));
setTimeout(() => process.exit(0), 60000);  // never outlive a test
