/* librsa.so to start from: the calls, without a key. Here belongs the device's own RSA. */
#include <rsa.h>
#include <stddef.h>

int librsa_get_keys(char *key1, char *key2, char *key3) {
    (void)key1, (void)key2, (void)key3;
    return -1; /* Here: up to 511 letters and a NUL into each buffer that is not null; 0 */
}

char *librsa_decrypt(const char *cipherText, char *key1, char *key2, char *key3) {
    (void)cipherText, (void)key1, (void)key2, (void)key3;
    return NULL; /* Here: the plain text, from malloc() */
}

char *librsa_encrypt(const char *plainText, char *key1, char *key2) {
    (void)plainText, (void)key1, (void)key2;
    return NULL; /* Here: the cipher text, from malloc(): one line of at most 512 characters */
}
