/* Marks what libwexcryptcpp.so.1 exports; everything else is hidden. */
#ifndef ZULCRYPTEXPORT_H
#define ZULCRYPTEXPORT_H

#define ZULCRYPT_API __attribute__((visibility("default")))

#endif /* ZULCRYPTEXPORT_H */
