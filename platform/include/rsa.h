/* The device's RSA (librsa.so). The key material is the library's own: a caller only carries the
 * key texts from librsa_get_keys to the two calls that need them.
 * Key buffers are RSA_KEY_TEXT_BYTES each, texts NUL-terminated. Texts that a call returns are released by
 * the caller with free(). Safe to call from several processes at once, in each from one thread at a
 * time. Nothing here logs. */
#ifndef PLATFORM_RSA_H
#define PLATFORM_RSA_H

#ifdef __cplusplus
extern "C" {
#endif

enum { RSA_KEY_TEXT_BYTES = 512 };

/* Fills the given buffers (each RSA_KEY_TEXT_BYTES, each may be null) with the device's key texts: key1 and
 * key2 describe the public key, key3 the private one. Returns 0; non-zero when there is no key. */
int librsa_get_keys(char *key1, char *key2, char *key3);

/* Decrypts a cipher text (Base64). Returns the plain text, or null for anything that is not a
 * cipher text of this key. */
char *librsa_decrypt(const char *cipherText, char *key1, char *key2, char *key3);

/* Encrypts a plain text. Returns the cipher text (Base64, one line of at most 512 characters), or null when
 * it is too long for the key. */
char *librsa_encrypt(const char *plainText, char *key1, char *key2);

#ifdef __cplusplus
}
#endif
#endif
