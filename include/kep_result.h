/* kep_result.h -- the result-code family of the component and path-joining
 * functions.
 *
 * A result code is an unsigned 32-bit number: KEP_E_SUCCESS (0) for success,
 * 0x84CE00xx for a failure. A function of this family may also return a
 * small positive number where its header says so (for example a length).
 */
#ifndef KEP_RESULT_H
#define KEP_RESULT_H

#include <stdint.h>

typedef uint32_t kep_result_t;

#define KEP_E_SUCCESS 0u
#define KEP_E_LOAD_FAILED 0x84CE0001u    /* a file could not be loaded */
#define KEP_E_INVALID_PARAM 0x84CE0003u  /* a null or out-of-range argument (the first) */
#define KEP_E_NULL_BUFFER 0x84CE0004u    /* the output buffer is null */
#define KEP_E_NULL_NAME 0x84CE0005u      /* the name asked for is null */
#define KEP_E_FILE_NOT_EXIST 0x84CE0015u /* the file to read does not exist */
#define KEP_E_NOT_FOUND 0x84CE0018u      /* what was asked for is not there, or does not fit */

#endif
