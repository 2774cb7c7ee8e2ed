/* What a hook answers: see the hook that is being attached to for what each answer does there. */
#ifndef RUXO_HOOKS_H
#define RUXO_HOOKS_H

typedef enum {
  RUXO_HOOK_CONTINUE = 0, /* no opinion; go on */
  RUXO_HOOK_DONE = 1,     /* accepted */
  RUXO_HOOK_ABORT = 2     /* stop at once */
} ruxo_hook_return_t;

#endif
