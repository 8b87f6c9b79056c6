'use strict';
// The arguments of the sandbox's commands. `take(word, value)` handles one flag, calling
// value() for the word after it, and returns false for a flag it does not know; an unknown flag
// or a bad value ends the command with its usage line and exit status 2.
function readArguments(usage, take) {
  const words = process.argv.slice(2);
  try {
    for (let i = 0; i < words.length; i++) {
      const word = words[i];
      const value = () => {
        if (i + 1 >= words.length) throw new Error(`${word} needs a value`);
        return words[++i];
      };
      if (!take(word, value)) throw new Error(`unknown argument ${word}`);
    }
  } catch (error) {
    console.error(`${error.message}\n${usage}`);
    process.exit(2);
  }
}

function wholeNumber(word, text, low, high) {
  const parsed = Number(text);
  if (!/^\d+$/.test(text) || parsed < low || parsed > high) throw new Error(`${word} must be a whole number from ${low} to ${high}`);
  return parsed;
}

module.exports = { readArguments, wholeNumber };
