/**
 * @file
 * Record encoder: turns a native structure into an encoded record, by a descriptor.
 *
 * A descriptor names a record, describes its fields in a small schema language and tells where
 * they lie in the native structure (platform/bag_schema.h reads the language). Descriptors are
 * constant data of whoever defines the records, and live as long as they are registered or used.
 *
 * The schema language. A schema is a sequence of definitions "$NUMBER=BODY;", the record's own
 * type first, then every type it uses, directly or through others, in ascending number. A body is
 * a sequence of elements, each but a union preceded by its field name in braces:
 *
 *   D  32-bit unsigned             H  64-bit unsigned         C  8-bit unsigned
 *   I  16-bit port                 b  8-bit boolean           s  pointer to a string
 *   N  IPv4 address, network order       [TYPE]e  32-bit enumeration of that type
 *   16x     16 opaque bytes, 8-aligned   10a(D)   count and pointer, at most 10 elements D
 *   $14     a structure of type 14       %h %s    after an element: how to display it
 *   ?(<FIELD,TYPE>,1:{A}D,2:v,?:v)       union: a 32-bit discriminator, then the arm that it
 *                                        selects; v carries nothing, ? is the default arm
 *
 * A body that is a single element other than a union may leave its name out. Names are of letters,
 * digits and "_", and no two are the same in a body, discriminators and arms included. An array is
 * of numbers, addresses, strings, booleans, enumerations or structures, without a name. An arm is
 * neither an array nor a union; its labels are all different, and v, which has no name, stands
 * nowhere else. Numbers have 32 bits, and those of bytes and elements are not 0. Of opaque bytes
 * only 16x has %s. Every type is defined once and used, none contains itself, and each is smaller
 * than 4 GiB.
 *
 * The short schema is the long one without names, enumeration types and discriminators, and with
 * a "." after each type reference.
 *
 * An encoded record is CBOR (RFC 8949) in its deterministic encoding (section 4.2.1): a map from
 * field names to values. Numbers and enumerations are unsigned integers, booleans true or false,
 * strings text, opaque bytes a byte string, IPv4 addresses and opaque bytes displayed as text
 * (16x%s alone, an IPv6 address) byte strings in network order under the tags of RFC 9164 (52, 54).
 * A counted array is an array, a structure a map; a union adds its discriminator and the field of
 * its arm to the map that it stands in. A type whose body is one element without a name is that
 * element's value.
 */
#ifndef TARVO_PLATFORM_BAG_H
#define TARVO_PLATFORM_BAG_H

#include "export.h"

PLATFORM_BEGIN

/** A type that a record uses. */
typedef struct bag_nested_type {
  uint64_t type; /**< its number */
  uint64_t size; /**< native bytes */
  const uint64_t
      *offsets; /**< as in bag_type_table_t; null for a type that is opaque bytes alone */
} bag_nested_type_t;

/**
 * Native layout of a record. `nested_count` entries of bag_nested_type_t follow it in memory, in
 * ascending type number. An offsets array has an entry for each element of the body, in order; two
 * for a counted array (its 32-bit count, its pointer) and for a union (its discriminator, the
 * storage of its arms).
 */
typedef struct bag_type_table {
  uint64_t nested_count;   /**< types that the record uses */
  uint64_t size;           /**< native bytes of the record's own type */
  const uint64_t *offsets; /**< null, too, for opaque bytes alone */
} bag_type_table_t;

/** All that is known of a record. */
typedef struct bag_descriptor {
  uint64_t format;               /**< BAG_FORMAT */
  const char *name;              /**< the record's, unique among those registered */
  uint64_t layout_format;        /**< BAG_LAYOUT_FORMAT */
  const char *library;           /**< name of the library that the descriptor belongs to */
  const bag_type_table_t *types; /**< the native layout */
  const char *long_schema;       /**< the schema, NUL-terminated */
  const char *short_schema;      /**< its short form */
} bag_descriptor_t;

#define BAG_FORMAT UINT64_C(1)        /**< the only format of descriptors */
#define BAG_LAYOUT_FORMAT UINT64_C(4) /**< the only format of type tables */

static_assert(sizeof(bag_nested_type_t) == 24, "layout of the encoder");
static_assert(sizeof(bag_type_table_t) == 24, "its entries follow it");
static_assert(offsetof(bag_descriptor_t, name) == 8, "layout of the encoder");
static_assert(offsetof(bag_descriptor_t, layout_format) == 16, "layout of the encoder");
static_assert(offsetof(bag_descriptor_t, library) == 24, "layout of the encoder");
static_assert(offsetof(bag_descriptor_t, types) == 32, "layout of the encoder");
static_assert(offsetof(bag_descriptor_t, long_schema) == 40, "layout of the encoder");
static_assert(offsetof(bag_descriptor_t, short_schema) == 48, "layout of the encoder");
static_assert(sizeof(bag_descriptor_t) == 56, "layout of the encoder");

/** Most types that a record defines, its own included. */
#define BAG_MAX_TYPES 64
/** Most elements of one type, its unions' arms included. */
#define BAG_MAX_MEMBERS 64
/** Most types that use one another in a chain. */
#define BAG_MAX_DEPTH 8

/** Result codes; 0 is success. */
#define BAG_ERR_NOMEM UINT32_C(0x40830200)
#define BAG_ERR_DESCRIPTOR UINT32_C(0x40830400) /**< null, incomplete, or of another format */
#define BAG_ERR_SCHEMA UINT32_C(0x40830600)     /**< unlike the above, or the two forms differ */
#define BAG_ERR_LAYOUT UINT32_C(0x40830800)     /**< the type table does not fit the schema */
#define BAG_ERR_BUSY UINT32_C(0x40830a00)       /**< a registration is open already */
#define BAG_ERR_NOT_OPEN UINT32_C(0x40830c00)   /**< no registration is open */
#define BAG_ERR_DUPLICATE_NAME UINT32_C(0x40830e00) /**< a record of that name is registered */
#define BAG_ERR_DUPLICATE_TYPE UINT32_C(0x40831000) /**< a record of that type number is */
#define BAG_ERR_OTHER_BODY UINT32_C(0x40831200)     /**< a type was defined otherwise before */
#define BAG_ERR_ORDER UINT32_C(0x40831400)          /**< a record that uses its type came before */
#define BAG_ERR_VALUE UINT32_C(0x40831600)          /**< null or no UTF-8; a record of 4 GiB */
#define BAG_ERR_COUNT UINT32_C(0x40831800)          /**< more elements than an array may have */
#define BAG_ERR_DISCRIMINATOR UINT32_C(0x40831a00)  /**< no arm, and no default arm either */

/**
 * Opens a registration. One can be open at a time in a process; another gets BAG_ERR_BUSY.
 * `registry` is for platforms that have several: here there is one, and the argument is not used.
 */
PLATFORM_API uint32_t bag_register_start(void *registry);

/**
 * Registers one bag_descriptor_t in the open registration. Records whose types others use come
 * before those others. A refused one changes nothing; the registration stays open. Of several
 * reasons to refuse it the first is told, in this order: no registration open, the descriptor
 * itself (DESCRIPTOR, SCHEMA, LAYOUT), what is registered already (DUPLICATE_NAME, DUPLICATE_TYPE,
 * OTHER_BODY, ORDER), no memory.
 */
PLATFORM_API uint32_t bag_register(const void *descriptor);

/** Keeps what the open registration brought, and closes it. */
PLATFORM_API uint32_t bag_register_end(void);

/** Forgets what the open registration brought, and closes it. No effect when none is open. */
PLATFORM_API void bag_register_abort(void);

/** Records registered so far, those of an open registration not counted. */
PLATFORM_API uint32_t bag_registered_count(void);

/**
 * Encodes `native` by a bag_descriptor_t, which need not be registered but is checked as if it were
 * to be. On success the record is in `*buffer`, to be released with free(), and its bytes in
 * `*length`; else both are left alone. Any thread, no lock; `native` and what it points at must not
 * change meanwhile.
 */
PLATFORM_API uint32_t bag_encode(void **buffer, uint32_t *length, const void *native,
                                 const void *descriptor);

PLATFORM_END

#endif
