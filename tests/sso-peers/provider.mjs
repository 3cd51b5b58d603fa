// A real OpenID Connect provider for the single sign-on tests, on 127.0.0.1 only.
//
//   node provider.mjs --accounts <file.json>
//
// Prints "ready <port>" once listening; exits when its standard input closes (the test process
// went away). The issuer is "http://127.0.0.1:<port>" (no trailing "/").
//
// Clients:
//   quill     native application, secret "quill-secret" sent in the form body, loopback redirect
//             URI http://127.0.0.1/api/sso/callback (any port matches), RS256 ID tokens
//   quill-hs  the same, but ID tokens signed with HS256 (which the server must refuse)
//
// Accounts: the file maps a login to its claims ({"ann": {"preferred_username": "...", "roles":
// [...]}}); the login is the subject. The file is read at every sign-in, so a test can change a
// person's claims between sign-ins. The development login page accepts any login and password.

import { readFileSync } from 'node:fs';
import { createServer } from 'node:http';
import { generateKeyPairSync } from 'node:crypto';

import Provider from 'oidc-provider';

const args = process.argv.slice(2);
const option = (name) => {
  const i = args.indexOf(name);
  return i >= 0 ? args[i + 1] : undefined;
};
const accountsFile = option('--accounts');

const signingKey = generateKeyPairSync('rsa', { modulusLength: 2048 }).privateKey.export({
  format: 'jwk',
});

const server = createServer();
server.listen(0, '127.0.0.1', () => {
  const { port } = server.address();
  const issuer = `http://127.0.0.1:${port}`;
  const client = (id, extra) => ({
    client_id: id,
    client_secret: 'quill-secret',
    application_type: 'native',
    token_endpoint_auth_method: 'client_secret_post',
    redirect_uris: ['http://127.0.0.1/api/sso/callback'],
    grant_types: ['authorization_code'],
    response_types: ['code'],
    ...extra,
  });
  const provider = new Provider(issuer, {
    clients: [client('quill', {}), client('quill-hs', { id_token_signed_response_alg: 'HS256' })],
    jwks: { keys: [{ ...signingKey, kid: 'test-key-1', use: 'sig', alg: 'RS256' }] },
    enabledJWA: { idTokenSigningAlgValues: ['RS256', 'HS256'] },
    claims: { openid: ['sub', 'preferred_username', 'email', 'roles', 'groups'] },
    conformIdTokenClaims: false,
    features: { devInteractions: { enabled: true } },
    cookies: { keys: ['quill-test-cookie-key'] },
    async findAccount(_ctx, id) {
      const accounts = accountsFile ? JSON.parse(readFileSync(accountsFile, 'utf8')) : {};
      const claims = { sub: id, ...(accounts[id] || {}) };
      return { accountId: id, claims: async () => claims };
    },
  });
  server.on('request', provider.callback());
  process.stdout.write(`ready ${port}\n`);
});

// The test reads only the "ready" line and then closes its end of standard output.
process.stdout.on('error', () => {});
process.stdin.on('end', () => process.exit(0));
process.stdin.on('error', () => process.exit(0));
process.stdin.resume();
