// A real OpenID Connect provider for the single sign-on tests, on 127.0.0.1 only.
//   node provider.mjs --accounts <file.json>
// Prints "ready <port>" once listening (issuer "http://127.0.0.1:<port>"); exits when its standard
// input closes. Client "quill" (RS256 ID tokens): native, secret "quill-secret" in the form body,
// redirect URI http://127.0.0.1/api/sso/callback on any port. The accounts file maps a login (the subject) to
// its claims and is read at every sign-in; the development login page takes any password.

import { readFileSync } from 'node:fs';
import { createServer } from 'node:http';
import { generateKeyPairSync } from 'node:crypto';
import Provider from 'oidc-provider';

const args = process.argv.slice(2);
const accountsFile = args[args.indexOf('--accounts') + 1];
const key = generateKeyPairSync('rsa', { modulusLength: 2048 }).privateKey.export({ format: 'jwk' });

const server = createServer();
server.listen(0, '127.0.0.1', () => {
  const { port } = server.address();
  const provider = new Provider(`http://127.0.0.1:${port}`, {
    clients: [{
      client_id: 'quill',
      client_secret: 'quill-secret',
      application_type: 'native',
      token_endpoint_auth_method: 'client_secret_post',
      redirect_uris: ['http://127.0.0.1/api/sso/callback'],
    }],
    jwks: { keys: [{ ...key, kid: 'test-key-1', use: 'sig', alg: 'RS256' }] },
    claims: { openid: ['sub', 'preferred_username', 'email', 'roles', 'groups'] },
    conformIdTokenClaims: false,
    features: { devInteractions: { enabled: true } },
    cookies: { keys: ['quill-test-cookie-key'] },
    async findAccount(_ctx, id) {
      const claims = { sub: id, ...(JSON.parse(readFileSync(accountsFile, 'utf8'))[id] || {}) };
      return { accountId: id, claims: async () => claims };
    },
  });
  server.on('request', provider.callback());
  process.stdout.write(`ready ${port}\n`);
});

// The test reads only the "ready" line and then closes its end of standard output.
process.stdout.on('error', () => {});
process.stdin.on('end', () => process.exit(0)).on('error', () => process.exit(0)).resume();
