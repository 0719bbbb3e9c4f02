/* mbedTLS for the device: a TLS 1.2 client and no more, as small as HTTPS allows. For 3.6 and for 2.28.
 * script/device puts this file in the place of mbedTLS's own configuration, so that the library, libcurl
 * and whatever else includes its headers agree on every structure. What is left out: servers, TLS
 * 1.0/1.1/1.3, CBC and every other mode but GCM and ChaCha20-Poly1305, DHE and plain RSA key exchange,
 * sessions, DTLS. */
#ifndef CLOUD_MBEDTLS_DEVICE_H
#define CLOUD_MBEDTLS_DEVICE_H

/* What it may ask of the system. */
#define MBEDTLS_HAVE_TIME
#define MBEDTLS_HAVE_TIME_DATE /* certificates are checked against the date */
#define MBEDTLS_PLATFORM_C
#define MBEDTLS_FS_IO /* the CA file */
#define MBEDTLS_ENTROPY_C
#define MBEDTLS_CTR_DRBG_C

/* Ciphers and hashes. */
#define MBEDTLS_AES_C
#define MBEDTLS_AES_ROM_TABLES /* tables in flash, shared between runs, instead of RAM */
#define MBEDTLS_AES_FEWER_TABLES
#define MBEDTLS_BLOCK_CIPHER_NO_DECRYPT /* GCM encrypts, both ways */
#define MBEDTLS_CHACHA20_C /* offered first: without AES in the processor it is three times as fast */
#define MBEDTLS_POLY1305_C
#define MBEDTLS_CHACHAPOLY_C
#define MBEDTLS_CIPHER_C
#define MBEDTLS_GCM_C
#define MBEDTLS_MD_C
#define MBEDTLS_SHA1_C /* key identifiers, and roots that still sign themselves with it */
#define MBEDTLS_SHA256_C
#define MBEDTLS_SHA256_SMALLER
#define MBEDTLS_SHA384_C /* part of the next one before 3.0 */
#define MBEDTLS_SHA512_C
#define MBEDTLS_SHA512_SMALLER

/* Public keys. */
#define MBEDTLS_BIGNUM_C
#define MBEDTLS_OID_C
#define MBEDTLS_ASN1_PARSE_C
#define MBEDTLS_ASN1_WRITE_C
#define MBEDTLS_RSA_C
#define MBEDTLS_PKCS1_V15
#define MBEDTLS_PKCS1_V21
#define MBEDTLS_ECP_C
#define MBEDTLS_ECP_DP_SECP256R1_ENABLED
#define MBEDTLS_ECP_DP_SECP384R1_ENABLED
#define MBEDTLS_ECP_DP_CURVE25519_ENABLED
#define MBEDTLS_ECDH_C
#define MBEDTLS_ECDSA_C
#define MBEDTLS_PK_C
#define MBEDTLS_PK_PARSE_C
#define MBEDTLS_PK_WRITE_C /* libcurl does not compile without it */
#define MBEDTLS_PEM_PARSE_C
#define MBEDTLS_BASE64_C
#define MBEDTLS_X509_USE_C
#define MBEDTLS_X509_CRT_PARSE_C

/* TLS. */
#define MBEDTLS_KEY_EXCHANGE_ECDHE_RSA_ENABLED
#define MBEDTLS_KEY_EXCHANGE_ECDHE_ECDSA_ENABLED
#define MBEDTLS_SSL_TLS_C
#define MBEDTLS_SSL_CLI_C
#define MBEDTLS_SSL_PROTO_TLS1_2
#define MBEDTLS_SSL_SERVER_NAME_INDICATION
#define MBEDTLS_SSL_EXTENDED_MASTER_SECRET
#define MBEDTLS_SSL_MAX_FRAGMENT_LENGTH
#define MBEDTLS_SSL_ALPN
#define MBEDTLS_SSL_OUT_CONTENT_LEN 4096 /* requests are short; what comes in may fill 16 KiB */

/* What nobody reads here: texts of errors, and of certificates, which libcurl prints when it is verbose. */
#define MBEDTLS_X509_REMOVE_INFO
#define mbedtls_x509_crt_info(buffer, size, prefix, certificate) 0

#if defined(__x86_64__) && defined(__GNUC__)
#define MBEDTLS_HAVE_ASM
#define MBEDTLS_AESNI_C /* so that HTTPS figures of device-native are not the table cipher's */
#endif

#ifndef MBEDTLS_VERSION_NUMBER /* 3.6 has said it by now, and checks by itself */
#include "mbedtls/check_config.h"
#endif
#endif
