/* Offers a function that adds numbers, until its standard input ends; or has it called at every server there
 * is.
 *
 *     export TAMBEK_HOME=/tmp TAMBEK_ZEB_PROXY_PORT=9320
 *     remote_call serve &
 *     remote_call "1 2 3"
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <zeb.h>

static const char *const NAME = "adder";

/* Tells each sum on the way, and the last one as result. Runs on a thread of the library. */
static int32_t add(zeb_rpcrequest *request, const void *data, int32_t length)
{
    const char *next = length > 0 ? data : ""; /* a NUL follows the argument */
    char *end;
    char text[32] = "";
    long sum = 0;
    for (long number = strtol(next, &end, 10); end != next; number = strtol(next, &end, 10)) {
        if (*text)
            zeb_rpcrequest_sendprogress(request, text, (int32_t)strlen(text));
        sum += number;
        snprintf(text, sizeof text, "%ld", sum);
        next = end;
    }
    if (*text == '\0')
        return zeb_rpcrequest_senderror(request, 1, "nothing to add");
    return zeb_rpcrequest_sendresult(request, text, (int32_t)strlen(text));
}

static int serve(void)
{
    zeb_rpcserver *server = zeb_rpcserver_create(NAME, "remote_call");
    zeb_rpcserver_addfunc(server, "add", add);
    int failed = zeb_rpcserver_launch(server);
    while (failed == 0 && getchar() != EOF)
        continue;
    zeb_rpcserver_destroy(&server);
    return failed != 0;
}

static int call(const char *numbers)
{
    int errors = 0;
    zeb_rpcclient *client = zeb_rpcclient_create(&NAME, 1, "remote_call");
    zeb_laddrlist *servers = zeb_rpcclient_getservers_wtimeout(client, NAME, 1, 5000);
    zeb_rpcinvocation *sum = zeb_rpcclient_invoke(client, "add", servers, numbers,
                                                  (int32_t)strlen(numbers)); /* null: no servers */
    zeb_rpcresponse *response;
    while ((response = zeb_rpcinvocation_getresponse(sum, 1, 10000)) != NULL) {
        int32_t code;
        const char *text = zeb_rpcresponse_getdata(response, NULL); /* with a NUL behind it */
        const char *error = zeb_rpcresponse_geterror(response, &code);
        if (text)
            printf("%s %s\n", zeb_rpcresponse_isresult(response) ? "result" : "progress", text);
        else
            errors += printf("error %d %s\n", (int)code, error ? error : "the server is gone") > 0;
        zeb_rpcresponse_destroy(&response);
    }
    int complete = zeb_rpcinvocation_isdone(sum); /* 0 when it was the time that ran out */
    zeb_rpcinvocation_destroy(&sum);
    zeb_laddrlist_destroy(&servers);
    zeb_rpcclient_destroy(&client);
    return !complete || errors > 0;
}

int main(int argc, char **argv)
{
    if (argc != 2 || zeb_init() != 0)
        return 1;
    int failed = strcmp(argv[1], "serve") == 0 ? serve() : call(argv[1]);
    zeb_shutdown();
    return failed;
}
