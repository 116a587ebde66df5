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
#define KEP_E_INVALID_PARAM 0x84CE0003u

#endif
