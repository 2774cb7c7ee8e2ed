/* Field-compressed record streams: a sequence of records of one fixed layout (structures of 32- and 64-bit integers
 * and floats) as a dense stream of bits. doc/packed-stream.md has the format.
 *
 * A definition says which fields the caller's structure has, where, and how each is written. An encoding state takes
 * records one at a time and writes them to a buffer of the caller's; cfssz_enc_state_finalize then seals the stream
 * with its header. A decoding state gives the records back in order. Neighbouring records are assumed to be alike:
 *
 *   cfssz_field at = {offsetof(struct sample, at), 0, 0, CFSSZ_INT64, CFSSZ_DELTADELTA_VARBIT};
 *   cfssz_field load = {offsetof(struct sample, load), 0, 0, CFSSZ_DOUBLE, CFSSZ_XOR_VARBIT};
 *   const cfssz_field *fields[] = {&at, &load, NULL};
 *   cfssz_definition *def = cfssz_compile_definition(0x5a01, fields);
 *   cfssz_state *enc = cfssz_enc_state_alloc(def);
 *   for (...)
 *     while ((needed = cfssz_enc_state_add(enc, buffer, room, &sample)) > 0)
 *       buffer = realloc(buffer, room = 2 * needed);
 *   len = cfssz_enc_state_finalize(enc, buffer, room);
 *
 * Two rules do not give back what was written, and are kept because streams stay as they are: a CFSSZ_NONE field that
 * does not begin on a byte boundary of the stream, so a definition with CFSSZ_NONE fields must have no others; and
 * CFSSZ_XOR_VARBIT of a 64-bit field that differs from its predecessor in bit 3 and in none below.
 * CFSSZ_DELTADELTA_VARBIT gives back every value of every type.
 *
 * Ownership: definitions and states come from malloc and are released with free(). A state borrows its definition,
 * which must outlive it; buffers and records are only used during a call.
 * Threads: a state belongs to one thread at a time; a definition is read-only and may be shared.
 * Null pointers are not allowed where nothing is said. Using a state in the wrong direction is fatal. */
#ifndef LIBORLITH_UTIL_CFSSZ_H
#define LIBORLITH_UTIL_CFSSZ_H

#include <sys/types.h>

#include "ruxo/base.h"

RUXO_BEGIN_DECLS

/* What a stream begins with: the signature and the number of records, big-endian. */
#define CFSSZ_HEADER_BYTES 6

/* The widths are fixed so that a value from outside the lists is still an ordinary one, which is refused. */
#ifdef __cplusplus
typedef enum cfssz_field_type : uint32_t {
#else
typedef enum cfssz_field_type {
#endif
  CFSSZ_INT32 = 0, /* 4 bytes, signed or not */
  CFSSZ_INT64 = 1, /* 8 bytes */
  CFSSZ_FLOAT = 2, /* 4 bytes; floats are taken as bit patterns and never converted */
  CFSSZ_DOUBLE = 3 /* 8 bytes */
} cfssz_field_type;

#ifdef __cplusplus
typedef enum cfssz_field_encoding : uint32_t {
#else
typedef enum cfssz_field_encoding {
#endif
  CFSSZ_NONE = 0,             /* the bytes themselves */
  CFSSZ_XOR_VARBIT = 1,       /* exclusive or with the last record's value, leading zeros left out */
  CFSSZ_DELTADELTA_VARBIT = 2 /* difference to the last value, from the third record on of differences */
} cfssz_field_encoding;

typedef struct cfssz_field {
  size_t field_offset;    /* bytes into the caller's structure */
  size_t internal_offset; /* bytes into the packed record image; computed */
  size_t len;             /* bytes; computed from the type */
  cfssz_field_type field_type;
  cfssz_field_encoding field_enc;
} cfssz_field;

/* What follows a structure is declared as C does it. C++ compilers know the form, and one has to be told that it is
 * meant. */
#if defined(__cplusplus) && defined(__clang__)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wc99-extensions"
#endif

typedef struct cfssz_definition {
  uint64_t signature; /* 16 bits of it are used */
  size_t nfields;
  size_t len; /* bytes of a packed record image: the sum of the fields' lengths */
  __extension__ cfssz_field fields[];
} cfssz_definition;

/* The fields are public for their layout only; go through the functions. */
typedef struct cfssz_state {
  cfssz_definition *definition; /* borrowed */
  uint8_t *buffer;              /* not used */
  size_t bit_offset;            /* the next bit to write or read, counted from the start of the header */
  bool encoding;                /* the direction */
  uint32_t nelem;               /* records encoded so far, or records in the stream */
  uint32_t current_index;       /* the next record to decode */
  /* Three packed record images. Image n & 1 holds the values of record n, so the first two hold the last two
   * records; the third is where a record is put together while it is decoded. */
  __extension__ uint8_t working_buffer[];
} cfssz_state;

#if defined(__cplusplus) && defined(__clang__)
#pragma clang diagnostic pop
#endif

/* Copies the `fields` up to a null pointer and computes each one's `len` and `internal_offset`, whatever they held.
 * `sig` is what the header of a stream begins with. An empty list gives a definition without fields, whose records
 * take no room. Null when there is no memory. A field of unknown type or encoding is fatal. */
RUXO_EXPORT cfssz_definition *cfssz_compile_definition(uint16_t sig, const cfssz_field **fields);

/* A state for encoding, at the start of a stream. Null when there is no memory. */
RUXO_EXPORT cfssz_state *cfssz_enc_state_alloc(cfssz_definition *def);

/* Writes the record at `vstruct` to the stream that begins at `buffer` and may take `bufflen` bytes; these need not
 * be zero, and those after the stream may be written over.
 * 0 when it is written. Otherwise the least number of bytes to call again with, in a buffer with the same bytes at its
 * start: state and buffer are as they were. Two such answers may follow each other for one record, since the first
 * asks for what nearly every record needs at most (its fields' bytes and one more for each) without looking at it.
 * A buffer that is too short for what the stream holds already (at first: for its header) is answered with 0 as well,
 * and nothing is written. Callers rely on it, so it is kept; have room for the header. */
RUXO_EXPORT size_t cfssz_enc_state_add(cfssz_state *state, void *buffer, size_t bufflen, const void *vstruct);

/* Writes the header and returns the stream's length in bytes; 0 with nothing written when `bufflen` is shorter.
 * Records may be added afterwards, and the stream finalized again. */
RUXO_EXPORT size_t cfssz_enc_state_finalize(cfssz_state *state, void *buffer, size_t bufflen);

/* A state for decoding the stream of `bufflen` bytes at `buff`, of which it keeps no reference. Null if it is shorter
 * than a header, begins with another signature than the definition's, or there is no memory. The number of records is
 * taken as it stands: decoding ends at it, or fails where the bytes end. */
RUXO_EXPORT cfssz_state *cfssz_dec_state_alloc(cfssz_definition *def, const void *buff, size_t bufflen);

/* Decodes the next record of the stream at `buff` to `vstruct`, where only the bytes of fields are written. Returns
 * its size in bits; 0 when there is no further record (and for a definition without fields, always); -1 if the
 * record does not lie within `bufflen` bytes or a field of it cannot be decoded: nothing is written then, and the
 * state stays before that record. Bits beyond `bufflen` bytes are never read. */
RUXO_EXPORT ssize_t cfssz_dec_state_next(cfssz_state *state, const void *buff, size_t bufflen, void *vstruct);

RUXO_END_DECLS

#endif
