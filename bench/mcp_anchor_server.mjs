// The anchor for bench/mcp_bench.mjs: the official SDK's own server over stdio, with
// one tool that reads a file by path, so the same client and transport are timed
// against a server that does nothing but read.
//   node bench/mcp_anchor_server.mjs <directory>
import fs from 'node:fs';
import path from 'node:path';
import { fileURLToPath, pathToFileURL } from 'node:url';

const modules = path.join(path.dirname(fileURLToPath(import.meta.url)), '..', 'tests', 'node_modules');
const load = (p) => import(pathToFileURL(path.join(modules, p)).href);
const { McpServer } = await load('@modelcontextprotocol/sdk/dist/esm/server/mcp.js');
const { StdioServerTransport } = await load('@modelcontextprotocol/sdk/dist/esm/server/stdio.js');
const { z } = await load('zod/index.js');

const root = process.argv[2];
const server = new McpServer({ name: 'anchor', version: '1.0.0' });
server.registerTool('fs_read', { inputSchema: { path: z.string() } }, async ({ path: file }) => ({
  content: [{ type: 'text', text: fs.readFileSync(path.join(root, file), 'utf8') }],
}));
server.registerTool('kst_enroll', { inputSchema: { directory: z.string() } }, async () => ({
  content: [{ type: 'text', text: 'OK' }],
}));
await server.connect(new StdioServerTransport());
