/* The command grammar. A line is one command (run at once) or a statement of the
   script language (built into a tree, then run). Errors are recovered per line:
   a bad line is reported and parsing goes on with the next one. */
%require "3.8"
%language "c++"
%define api.namespace {kx::lang::grammar}
%define api.parser.class {Parser}
%define api.value.type variant
%define api.token.constructor
%define api.token.prefix {TOK_}
%define parse.error simple

%code requires {
#include <string>
#include <vector>
#include "lang/script.hpp"
namespace kx::lang { struct ParseContext; }
typedef void* yyscan_t;
}

%param {yyscan_t scanner} {kx::lang::ParseContext& ctx}

%code {
#include "lang/parse_driver.hpp"
#include "lang/text.hpp"
kx::lang::grammar::Parser::symbol_type kxlex(yyscan_t scanner, kx::lang::ParseContext& ctx);
#define yylex kxlex
}

%token END 0 "end of input"
%token EOL "end of line"
%token <std::string> COMMAND "command" QUERY "query" IDENT "identifier" STRING "string"
%token <std::string> ACTIONCALL "action call" PROMOTECALL "promote call" UNKNOWN "word"
%token <long long> NUMBER "number"
%token IF ELSE WHILE DO FOR SCRIPT
%token EQ "==" NE "!=" LE "<=" GE ">=" LT "<" GT ">" AND "&&" OR "||" MATCH "=~"
%token INC "++" DEC "--" DOTDOT ".."
%token SEMI ";" LBRACE "{" RBRACE "}" LPAREN "(" RPAREN ")" ASSIGN "="
%token PLUS "+" MINUS "-" STAR "*" SLASH "/" PERCENT "%" BANG "!"

%type <kx::lang::StmtPtr> stmt control step
%type <std::vector<kx::lang::StmtPtr>> stmts stmt_list
%type <kx::lang::ExprPtr> expr
%type <kx::lang::Op> compare

%left OR
%left AND
%nonassoc EQ NE LT LE GT GE MATCH
%left PLUS MINUS
%left STAR SLASH PERCENT
%precedence BANG UMINUS
%precedence THEN
%precedence ELSE

%%

input:
    %empty
  | input line
  ;

line:
    EOL
  | COMMAND EOL                     { ctx.run_command($1); }
  | QUERY EOL                       { ctx.run_query($1); }
  | control EOL                     { ctx.run_statement(*$1); }
  | control SEMI stmts EOL          { $3.insert($3.begin(), $1); ctx.run_statement(*make_block($3)); }
  | SCRIPT stmts EOL                {
      if ($2.empty()) ctx.write_result("ERROR: empty script");
      else ctx.write_result(to_text(*make_block($2)));
    }
  | error EOL                       { yyerrok; ctx.line_has_error = false; }
  ;

stmts:
    %empty                          { }
  | stmt_list                       { $$ = $1; }
  | SEMI stmts                      { $$ = $2; }  /* a line end right after "{" */
  ;

stmt_list:
    stmt                            { $$.push_back($1); }
  | stmt_list SEMI                  { $$ = $1; }
  | stmt_list SEMI stmt             { $$ = $1; $$.push_back($3); }
  ;

stmt:
    COMMAND                         { $$ = make_command(std::string(trim($1))); }
  | control                         { $$ = $1; }
  ;

control:
    IF LPAREN expr RPAREN stmt %prec THEN        { $$ = make_if($3, $5, nullptr); }
  | IF LPAREN expr RPAREN stmt ELSE stmt         { $$ = make_if($3, $5, $7); }
  | WHILE LPAREN expr RPAREN stmt                { $$ = make_while($3, $5); }
  | DO stmt WHILE LPAREN expr RPAREN             { $$ = make_do_while($2, $5); }
  | FOR LPAREN IDENT ASSIGN expr SEMI expr SEMI step RPAREN stmt
                                                 { $$ = make_for($3, $5, $7, $9, $11); }
  | FOR LPAREN IDENT ASSIGN expr DOTDOT expr RPAREN stmt
                                                 { $$ = make_for_range($3, $5, $7, $9); }
  | step                                         { $$ = $1; }
  | ACTIONCALL                                   { $$ = make_call_from_text(Stmt::Kind::Action, $1); }
  | PROMOTECALL                                  { $$ = make_call_from_text(Stmt::Kind::Promote, $1); }
  | LBRACE stmts RBRACE                          { $$ = make_block($2); }
  ;

step:
    IDENT ASSIGN expr               { $$ = make_assign($1, $3); }
  | IDENT INC                       { $$ = make_increment($1, true); }
  | IDENT DEC                       { $$ = make_increment($1, false); }
  ;

compare:
    EQ { $$ = Op::Eq; } | NE { $$ = Op::Ne; } | LT { $$ = Op::Lt; } | LE { $$ = Op::Le; }
  | GT { $$ = Op::Gt; } | GE { $$ = Op::Ge; } | MATCH { $$ = Op::Match; }
  ;

expr:
    NUMBER                          { $$ = make_number($1); }
  | STRING                          { $$ = make_string($1); }
  | IDENT                           { $$ = make_variable($1); }
  | LPAREN expr RPAREN              { $$ = $2; }
  | expr compare expr %prec EQ      { $$ = make_binary($2, $1, $3); }
  | expr AND expr                   { $$ = make_binary(Op::And, $1, $3); }
  | expr OR expr                    { $$ = make_binary(Op::Or, $1, $3); }
  | expr PLUS expr                  { $$ = make_binary(Op::Add, $1, $3); }
  | expr MINUS expr                 { $$ = make_binary(Op::Sub, $1, $3); }
  | expr STAR expr                  { $$ = make_binary(Op::Mul, $1, $3); }
  | expr SLASH expr                 { $$ = make_binary(Op::Div, $1, $3); }
  | expr PERCENT expr               { $$ = make_binary(Op::Mod, $1, $3); }
  | BANG expr                       { $$ = make_unary(Expr::Kind::Not, $2); }
  | MINUS expr %prec UMINUS         { $$ = make_unary(Expr::Kind::Negate, $2); }
  ;

%%

void kx::lang::grammar::Parser::error(const std::string& message) {
  ctx.report_error(message);
}
