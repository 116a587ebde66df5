/* qiv_ejs_api.h -- the export macro of libqiv_ejs's headers (qiv_ejs.h and
 * the generated qiv_ejs_version.h). */
#ifndef QIV_EJS_API_H
#define QIV_EJS_API_H

#if defined(QIV_EJS_BUILDING)
#define QIV_EJS_API __attribute__((visibility("default")))
#else
#define QIV_EJS_API
#endif

#endif
