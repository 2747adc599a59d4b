'use strict';
// JavaScript lint. Files that run on Node 6 (the package entry and the suites
// every Node line runs) are parsed as ES2015 so that newer syntax fails here
// rather than on that runtime; everything else runs on current Node only.
const js = require('@eslint/js');
const globals = require('globals');

// scripts/build.js is npm's install step on every line.
const node6 = ['index.js', 'constants.js', 'test/js/*.js', 'test/package/*.js', 'scripts/build.js'];

module.exports = [
  { ignores: ['node_modules/**', 'build*/**', '.runtimes/**', '.node6/**', 'prebuilds/**'] },
  js.configs.recommended,
  {
    files: ['**/*.js'],
    languageOptions: {
      ecmaVersion: 2022,
      sourceType: 'commonjs',
      globals: { ...globals.node },
    },
    rules: {
      strict: ['error', 'global'],
      'no-unused-vars': ['error', { args: 'after-used', caughtErrors: 'none' }],
      'prefer-const': 'error',
      eqeqeq: ['error', 'always', { null: 'ignore' }],
      semi: ['error', 'always'],
      quotes: ['error', 'single', { avoidEscape: true }],
    },
  },
  {
    files: node6,
    languageOptions: { ecmaVersion: 2015 },
  },
];
